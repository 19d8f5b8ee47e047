#pragma once

#include <boost/asio/steady_timer.hpp>

#include <playedstep.hpp>

namespace ZB::FrameManager
{

class PlayedWait final : public PlayedStep
{
public:
  PlayedWait(std::shared_ptr<const Play> play, const std::string& title, const WaitStep& step);

private:
  void begin() override;
  void letGo() override;
  void elapsed(const boost::system::error_code& error);

  const WaitStep& _step;
  boost::asio::steady_timer _timer;
};

class PlayedLog final : public PlayedStep
{
public:
  PlayedLog(std::shared_ptr<const Play> play, const std::string& title, const LogStep& step)
      : PlayedStep(std::move(play), title), _step(step)
  {
  }

private:
  void begin() override;
  void letGo() override {}

  const LogStep& _step;
};

class PlayedFail final : public PlayedStep
{
public:
  PlayedFail(std::shared_ptr<const Play> play, const std::string& title, const FailStep& step)
      : PlayedStep(std::move(play), title), _step(step)
  {
  }

private:
  void begin() override { fail(_step.reason); }
  void letGo() override {}

  const FailStep& _step;
};

} // namespace ZB::FrameManager
