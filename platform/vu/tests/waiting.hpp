#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

/// Waits with a bound, for tests: true when what is waited for has come.
namespace waiting
{

constexpr std::chrono::milliseconds bound{20000};

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

  bool wait(std::chrono::milliseconds limit = bound)
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, limit, [this] { return _missing <= 0; });
  }

private:
  std::mutex _mutex; // guards _missing
  std::condition_variable _changed;
  int _missing;
};

/// For a state that tells nobody when it changes.
template <typename Predicate> bool eventually(Predicate predicate)
{
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!predicate())
  {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::yield();
  }
  return true;
}

} // namespace waiting
