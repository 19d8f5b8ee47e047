#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include <vu/future.hpp>
#include <vu/threadpool.hpp>

namespace vu
{

/// A waiting line on a pool: what is pushed runs in that order, one at a time.
/// Thread-safe; what has been pushed runs even if the line's handle dies.
class Line : public std::enable_shared_from_this<Line>
{
public:
  static std::shared_ptr<Line> create(std::shared_ptr<ThreadPool> pool);

  void push(ThreadPool::Task task);
  /// Runs when `ready` has completed as well; until then the line stands still
  /// and holds no thread.
  template <typename T> void push(ThreadPool::Task task, const Future<T>& ready)
  {
    push(std::move(task),
         [ready](const ThreadPool::Task& goOn)
         {
           if (ready.isFinished())
             return false;
           ready.then([goOn](const Future<T>&) { goOn(); });
           return true;
         });
  }

  /// Completes when all that stands in the line now has run.
  Future<void> passed();

private:
  /// Whether the line must stand still; then it is told when to go on.
  using Wait = std::function<bool(const ThreadPool::Task& goOn)>;
  struct Entry
  {
    ThreadPool::Task task;
    Wait wait; ///< may be empty
  };

  explicit Line(std::shared_ptr<ThreadPool> pool) : _pool(std::move(pool)) {}
  void push(ThreadPool::Task task, Wait wait);
  void runNext();

  const std::shared_ptr<ThreadPool> _pool;
  std::mutex _mutex; // guards both members below
  std::deque<Entry> _entries;
  bool _running = false;
};

} // namespace vu
