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
  const std::shared_ptr<std::atomic<bool>> closing = std::make_shared<std::atomic<bool>>(false);
  const std::shared_ptr<std::atomic<std::uint64_t>> linesLeftOut = std::make_shared<std::atomic<std::uint64_t>>(0);
};

/// From a broker's configuration; leaves out calls, session and gate. Throws
/// std::invalid_argument that names the setting.
PlaySettings readSettings(const vu::Value& configuration);

} // namespace ZB::FrameManager
