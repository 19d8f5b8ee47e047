#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace vu
{

/// A pool of threads that does not starve.
///
/// Tasks may block. When work waits, all threads are busy and no task has begun
/// or ended for a few milliseconds, one thread is added, up to
/// `Limits::maximum`; threads beyond `Limits::threads` leave again when fewer
/// have done for an idle time. Every task runs with the caller's name (see
/// vu/caller.hpp) of the thread that posted it. What a task throws is logged.
/// Thread-safe.
class ThreadPool
{
public:
  using Task = std::function<void()>;

  struct Limits
  {
    std::size_t threads = 2;               ///< kept at all times, at least 1
    std::size_t maximum = 512;             ///< never more than these
    std::size_t queue = 4096;              ///< calls that may wait once all `maximum` threads are busy
    std::chrono::milliseconds idle{10000}; ///< without need for it, before a thread beyond `threads` leaves
  };

  ThreadPool();
  explicit ThreadPool(Limits limits);
  /// Closes; where a task of this pool held the last handle, on another thread.
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  /// Never refuses. After close() has returned, tasks go to the process's pool.
  void post(Task task);

  /// The same, ahead of all that is not urgent: for what ends something, and
  /// for looking whether the pool still works. What is not urgent has its turn
  /// after a number of those.
  void postUrgent(Task task);

  /// For calls, which may be refused: throws a ServiceError of kind Overloaded
  /// when all threads there may be are busy and the queue is full.
  void postCall(Task task);

  /// Runs `task` after `delay`, unless the pool is closed before. Threads that
  /// are all blocked do not hold it up, while there are less than `maximum`.
  void postAfter(std::chrono::milliseconds delay, Task task);

  /// Runs what is queued and what that posts in turn, drops what waits for its
  /// time, and joins the threads. Not to be called from a task of this pool.
  void close();

  /// Waits for a moment at which nothing is queued or running; timers do not
  /// count. Not to be called from a task of this pool.
  void waitUntilIdle();

  /// Whether the calling thread is one of this pool's.
  bool runsThisThread() const;

  /// Threads that exist now.
  std::size_t threadCount() const;

  /// The pool of what is made outside a broker; it lives as long as the process.
  static const std::shared_ptr<ThreadPool>& process();

private:
  struct Implementation;
  std::unique_ptr<Implementation> _implementation;
};

} // namespace vu
