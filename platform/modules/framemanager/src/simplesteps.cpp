#include <simplesteps.hpp>

#include <vu/log.hpp>

namespace ZB::FrameManager
{

RunningWait::RunningWait(std::shared_ptr<const Play> play, const std::string& title, const WaitStep& step)
    : RunningStep(std::move(play), title), _step(step), _timer(this->play().strand)
{
}

void RunningWait::begin()
{
  _timer.expires_after(_step.duration);
  _timer.async_wait(handler(&RunningWait::elapsed));
}

void RunningWait::letGo()
{
  _timer.cancel();
  end();
}

void RunningWait::elapsed(const boost::system::error_code&) { end(); }

void RunningLog::begin()
{
  vu::log::info("framemanager", "log", play().name + ": " + _step.message);
  end();
}

} // namespace ZB::FrameManager
