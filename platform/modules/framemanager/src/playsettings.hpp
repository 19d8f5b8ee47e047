#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <vu/gate.hpp>
#include <zb/callgate.hpp>

namespace ZB::FrameManager
{

/// The moment by which all programs have to have ended once the frame manager
/// closes, the same for all of them. Thread-safe.
class ClosingDeadline
{
public:
  void set(std::chrono::milliseconds fromNow) { _deadline = (Clock::now() + fromNow).time_since_epoch().count(); }
  bool isSet() const { return _deadline != none; }
  /// `wanted`, or what is left until the deadline.
  std::chrono::milliseconds shorten(std::chrono::milliseconds wanted) const;

private:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::rep none = Clock::duration::max().count();

  std::atomic<Clock::rep> _deadline = none;
};

/// What all behaviors of a frame manager have in common.
struct PlaySettings
{
  std::shared_ptr<const CallGate> calls;
  /// The same for `event` steps, which the log tells at debug level only.
  std::shared_ptr<const CallGate> eventCalls;
  /// Where the runs' tokens come from.
  std::shared_ptr<vu::LocalSession> session;
  /// Lets late answers in; closed before the pool of the strands ends.
  std::shared_ptr<vu::Gate> gate;
  /// Of the processes, as "NAME=value"; each run adds its token's file.
  std::vector<std::string> environment;
  /// The executable that runs programs.
  std::filesystem::path guard;
  /// Between SIGTERM and SIGKILL.
  std::chrono::milliseconds terminateGrace{2000};
  std::chrono::milliseconds createTimeout{10000};
  std::chrono::milliseconds playTimeout{10000};
  const std::shared_ptr<ClosingDeadline> closing = std::make_shared<ClosingDeadline>();
  const std::shared_ptr<std::atomic<std::uint64_t>> linesLeftOut = std::make_shared<std::atomic<std::uint64_t>>(0);
};

/// From a broker's configuration; leaves out calls, session and gate. Throws
/// std::invalid_argument that names the setting.
PlaySettings readSettings(const vu::Value& configuration);

} // namespace ZB::FrameManager
