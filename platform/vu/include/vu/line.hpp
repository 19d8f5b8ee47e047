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

  /// Completes when all that stands in the line now has run.
  Future<void> passed();

private:
  explicit Line(std::shared_ptr<ThreadPool> pool) : _pool(std::move(pool)) {}
  void runNext();

  const std::shared_ptr<ThreadPool> _pool;
  std::mutex _mutex; // guards both members below
  std::deque<ThreadPool::Task> _tasks;
  bool _running = false;
};

} // namespace vu
