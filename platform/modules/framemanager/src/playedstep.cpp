#include <playedstep.hpp>

#include <exception>
#include <utility>

#include <boost/asio/post.hpp>

#include <vu/future.hpp>

namespace ZB::FrameManager
{

void PlayedStep::start(Ended ended)
{
  _ended = std::move(ended);
  try
  {
    begin();
  }
  catch (...)
  {
    fail(vu::errorText(std::current_exception()));
  }
}

void PlayedStep::stop()
{
  if (_stopping || _hasEnded)
    return;
  _stopping = true;
  letGo();
}

void PlayedStep::end(const Outcome& outcome)
{
  if (std::exchange(_hasEnded, true))
    return;
  boost::asio::post(_play->strand,
                    [self = shared_from_this(), outcome]
                    {
                      const auto ended = std::exchange(self->_ended, nullptr);
                      ended(outcome);
                    });
}

void PlayedStep::fail(const std::string& message) { end(Failure{_title, message.empty() ? _title + " failed" : message}); }

} // namespace ZB::FrameManager
