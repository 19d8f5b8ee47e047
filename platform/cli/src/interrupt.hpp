#pragma once

#include <csignal>
#include <functional>
#include <thread>

namespace Tarvik
{

/// Turns SIGINT and SIGTERM into calls of a callback, on a thread of its own,
/// for as long as it lives. To be made before any other thread of the
/// command, which inherits that the signals are blocked.
class Interrupt
{
public:
  explicit Interrupt(std::function<void()> callback);
  /// The callback does not run any more when it has returned.
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

private:
  sigset_t _signals;
  sigset_t _previous;
  std::jthread _thread;
};

} // namespace Tarvik
