#include <simplesteps.hpp>

namespace ZB::FrameManager
{

PlayedWait::PlayedWait(std::shared_ptr<const Play> play, const std::string& title, const WaitStep& step)
    : PlayedStep(std::move(play), title), _step(step), _timer(this->play().strand)
{
}

void PlayedWait::begin()
{
  _timer.expires_after(_step.duration);
  _timer.async_wait(handler(&PlayedWait::elapsed));
}

void PlayedWait::letGo()
{
  _timer.cancel();
  end();
}

void PlayedWait::elapsed(const boost::system::error_code&) { end(); }

void PlayedLog::begin()
{
  play().output->log(vu::log::Level::Info, "log", _step.message);
  end();
}

} // namespace ZB::FrameManager
