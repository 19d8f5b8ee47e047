#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

namespace vu
{

/// Announces changes in the order in which they were made, outside the lock
/// under which they were made.
///
/// The owner calls queue() under that lock, beside the change, and emit()
/// after it has let go of it. emit() returns when its announcement has been
/// made, on this thread or on that of another one who stood before it in the
/// queue. Inside an announcement, of this emitter or of another one, it waits
/// for nobody: where somebody is announcing already, it leaves its own to him,
/// to follow before his emit() returns. So whoever is told of a change may make
/// others; but an announcement must not wait for another thread that emits.
/// What it throws is logged. Thread-safe.
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
  Ticket _owed = 0;   ///< the last one that was left to the emitter
  bool _emitting = false;
};

} // namespace vu
