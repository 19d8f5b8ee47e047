#pragma once

#include <vector>

#include <runningstep.hpp>
#include <vu/future.hpp>

namespace ZB::FrameManager
{

/// Service calls, one after another: `call` makes one, `event` declares and
/// raises. A call that is open holds no thread; a stop leaves it to itself.
class RunningCalls final : public RunningStep
{
public:
  RunningCalls(std::shared_ptr<const Play> play, const std::string& title, std::vector<CallStep> calls);

  static std::vector<CallStep> ofEvent(const EventStep& step);

private:
  void begin() override { next(); }
  void letGo() override { end(); }
  void next();
  void answered(const vu::Future<vu::Value>& answer);

  const std::vector<CallStep> _calls;
  std::size_t _position = 0;
};

} // namespace ZB::FrameManager
