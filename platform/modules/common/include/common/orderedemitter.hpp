#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace common
{

/// Announces changes in the order in which they were made, outside the lock
/// under which they were made.
///
/// The owner calls queue() under that lock, beside the change, and emit()
/// after it has let go of it. emit() returns when its announcement has been
/// made, on this thread or on that of another one who stood before it in the
/// queue. An announcement that queues and emits another one on its own thread
/// does not wait for itself: the new one is made after those that stand before
/// it, before the outer emit() returns. An announcement must not wait for
/// another thread that emits. What it throws is logged. Thread-safe.
class OrderedEmitter
{
public:
  using Announcement = std::function<void()>;
  using Ticket = std::uint64_t;

  Ticket queue(Announcement announcement);
  void emit(Ticket ticket);

private:
  std::mutex _mutex; // guards the members below
  std::condition_variable _announced;
  std::deque<Announcement> _waiting;
  Ticket _queued = 0; ///< the last one given out
  Ticket _done = 0;   ///< all up to this one have been made
  Ticket _owed = 0;   ///< the last one that a nested emit() has left to the outer one
  std::thread::id _emitter; ///< whoever is making an announcement
};

} // namespace common
