#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace TestSupport
{

/// How long a test waits for what must come, on a busy machine and under a
/// sanitizer. What passes does not wait so long.
constexpr std::chrono::seconds patience(60);

/// Something that happens a number of times, seen from other threads.
class Event
{
public:
  explicit Event(int times = 1) : _missing(times) {}

  void set()
  {
    const std::lock_guard lock(_mutex);
    --_missing;
    _changed.notify_all();
  }

  /// Whether it has happened so often in time.
  bool wait(std::chrono::milliseconds limit = patience)
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, limit, [this] { return _missing <= 0; });
  }

private:
  std::mutex _mutex; // guards _missing
  std::condition_variable _changed;
  int _missing;
};

/// Whether a state comes in time; for one that tells nobody when it changes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = patience);

} // namespace TestSupport
