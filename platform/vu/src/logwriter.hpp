#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace vu::log
{

/// False when nothing more can be written there; waits for whoever reads.
bool writeWhole(int descriptor, std::string_view text);

/// Writes lines to a descriptor on a thread of its own, so that a reader who
/// stands still holds up that thread and nobody else.
///
/// Lines are written in the order in which they were pushed. Those that find
/// the queue full, and those that cannot be written, are left out and counted;
/// once it goes on, one line says how many, where they would have stood.
class LogWriter
{
public:
  struct Limits
  {
    std::size_t lines = 10000;
    std::size_t bytes = 4 << 20;
  };
  /// The line that tells how many are missing; called on the writer's thread.
  using Notice = std::function<std::string(std::uint64_t leftOut)>;

  /// `leftOut` is counted up, and outlives the process's threads.
  LogWriter(int descriptor, Limits limits, Notice notice, std::atomic<std::uint64_t>& leftOut);
  /// Leaves a thread that is stuck to itself; it ends when it comes free.
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  /// Never waits for the reader.
  void push(std::string line);

  /// Whether everything pushed so far has been written in time.
  bool flush(std::chrono::milliseconds limit);

private:
  struct Queue;
  static void run(const std::shared_ptr<Queue>& queue);

  const std::shared_ptr<Queue> _queue;
  std::thread _thread;
};

} // namespace vu::log
