#include <vu/line.hpp>

#include <utility>

#include <vu/caller.hpp>
#include <vu/signal.hpp>

namespace vu
{

namespace
{
constexpr int deliveriesPerTurn = 64;
}

std::shared_ptr<Line> Line::create(std::shared_ptr<ThreadPool> pool) { return std::shared_ptr<Line>(new Line(std::move(pool))); }

void Line::push(ThreadPool::Task task) { push(std::move(task), Wait()); }

void Line::push(ThreadPool::Task task, Wait wait)
{
  // The pool would note the caller of the task that stands before this one.
  auto withCaller = [caller = currentCaller(), task = std::move(task)]
  {
    const CallerScope scope(caller);
    task();
  };
  {
    const std::lock_guard lock(_mutex);
    _entries.push_back({std::move(withCaller), std::move(wait)});
    if (_running)
      return;
    _running = true;
  }
  _pool->post([self = shared_from_this()] { self->runNext(); });
}

Future<void> Line::passed()
{
  const Promise<void> promise(_pool);
  push([promise] { promise.setValue(); });
  return promise.future();
}

void Line::runNext()
{
  // Several in one go, since taking a turn on the pool costs more than most
  // deliveries; but not all, so that others have theirs.
  for (int i = 0; i < deliveriesPerTurn; ++i)
  {
    Entry entry;
    {
      const std::lock_guard lock(_mutex);
      if (_entries.empty())
      {
        _running = false;
        return;
      }
      // One that has to be waited for keeps its place.
      entry.wait = std::exchange(_entries.front().wait, nullptr);
      if (!entry.wait)
      {
        entry = std::move(_entries.front());
        _entries.pop_front();
      }
    }
    if (entry.wait)
    {
      if (entry.wait([self = shared_from_this()] { self->runNext(); }))
        return;
      continue;
    }
    try
    {
      entry.task();
    }
    catch (...)
    {
      detail::logCallbackError("a delivery");
    }
    // What it holds goes before the next one runs.
  }
  _pool->post([self = shared_from_this()] { self->runNext(); });
}

} // namespace vu
