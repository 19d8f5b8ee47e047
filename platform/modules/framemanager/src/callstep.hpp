#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <playedstep.hpp>
#include <vu/future.hpp>

namespace ZB::FrameManager
{

/// Service calls, one after another, with the rights of the behavior: `call`
/// makes one, `event` declares and raises. A call that is open holds no thread. After a stop none begins, not
/// even one that waits for a thread already; what has begun is left to itself.
class PlayedCalls final : public PlayedStep
{
public:
  PlayedCalls(std::shared_ptr<const Play> play, const std::string& title, const CallStep& step);
  PlayedCalls(std::shared_ptr<const Play> play, const std::string& title, const EventStep& step);

private:
  void begin() override { next(); }
  void letGo() override;
  void next();
  void answered(const vu::Future<vu::Value>& answer);

  const CallGate& _gate;
  const std::vector<CallStep> _calls;
  std::size_t _position = 0;
  /// Of the current call: whoever sets it first decides whether it begins.
  std::shared_ptr<std::atomic<bool>> _decided;
};

} // namespace ZB::FrameManager
