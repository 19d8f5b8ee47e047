#pragma once

#include <boost/asio/steady_timer.hpp>

#include <runningstep.hpp>

namespace ZB::FrameManager
{

class RunningWait final : public RunningStep
{
public:
  RunningWait(std::shared_ptr<const Play> play, const std::string& title, const WaitStep& step);

private:
  void begin() override;
  void letGo() override;
  void elapsed(const boost::system::error_code& error);

  const WaitStep& _step;
  boost::asio::steady_timer _timer;
};

class RunningLog final : public RunningStep
{
public:
  RunningLog(std::shared_ptr<const Play> play, const std::string& title, const LogStep& step)
      : RunningStep(std::move(play), title), _step(step)
  {
  }

private:
  void begin() override;
  void letGo() override {}

  const LogStep& _step;
};

class RunningFail final : public RunningStep
{
public:
  RunningFail(std::shared_ptr<const Play> play, const std::string& title, const FailStep& step)
      : RunningStep(std::move(play), title), _step(step)
  {
  }

private:
  void begin() override { fail(_step.reason); }
  void letGo() override {}

  const FailStep& _step;
};

} // namespace ZB::FrameManager
