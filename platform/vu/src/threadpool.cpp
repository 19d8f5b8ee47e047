#include <vu/threadpool.hpp>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/signal.hpp>

namespace vu
{

namespace asio = boost::asio;
using namespace std::chrono_literals;

namespace
{
constexpr auto stallTime = 5ms; // without progress, before a thread is added
constexpr auto idleTime = 10s;  // without work, before a surplus thread leaves

thread_local const void* poolOfThisThread = nullptr;
} // namespace

struct ThreadPool::Implementation
{
  explicit Implementation(Limits wanted) : limits(wanted), work(asio::make_work_guard(io))
  {
    limits.threads = std::max<std::size_t>(limits.threads, 1);
    limits.maximum = std::max(limits.maximum, limits.threads);
    const std::lock_guard lock(mutex);
    while (threads.size() < limits.threads)
      addThread();
    supervisor = std::thread([this] { supervise(); });
  }

  // mutex held
  void addThread()
  {
    threads.emplace_back();
    threads.back() = std::thread([this, self = std::prev(threads.end())] { workUntilIdle(self); });
  }

  void workUntilIdle(std::list<std::thread>::iterator self)
  {
    poolOfThisThread = this;
    for (;;)
    {
      if (io.run_one_for(idleTime) > 0)
        continue;
      const std::lock_guard lock(mutex);
      if (closed && io.stopped())
        return; // joined by close()
      if (!closed && threads.size() > limits.threads)
      {
        departed.splice(departed.end(), threads, self);
        return;
      }
    }
  }

  /// Adds a thread whenever work waits and nothing moves.
  void supervise()
  {
    std::unique_lock lock(mutex);
    while (!closed)
    {
      workCame.wait(lock, [this] { return queued > 0 || closed; });
      const auto seen = progress;
      workCame.wait_for(lock, stallTime, [this] { return closed; });
      if (!closed && queued > 0 && progress == seen && threads.size() < limits.maximum)
        addThread();
      auto leaving = std::exchange(departed, {});
      lock.unlock();
      for (auto& thread : leaving)
        thread.join();
      lock.lock();
    }
  }

  /// False when the pool is closed.
  bool post(Task& task, bool mayRefuse)
  {
    {
      const std::lock_guard lock(mutex);
      if (closed)
        return false;
      if (mayRefuse && threads.size() >= limits.maximum && running >= limits.maximum && queued >= limits.queue)
        throw ServiceError({}, {}, "the host is overloaded: all its threads are busy and " + std::to_string(queued) + " calls wait; try again later", ServiceError::Kind::Overloaded);
      if (++queued == 1)
        workCame.notify_all();
    }
    asio::post(io, [this, task = std::move(task), caller = currentCaller()]() mutable { run(std::move(task), caller); });
    return true;
  }

  void run(Task task, const std::string& caller)
  {
    {
      const std::lock_guard lock(mutex);
      --queued;
      ++running;
      ++progress;
    }
    try
    {
      const CallerScope scope(caller);
      task();
    }
    catch (...)
    {
      detail::logCallbackError("a posted task");
    }
    task = nullptr;
    const std::lock_guard lock(mutex);
    --running;
    ++progress;
    if (queued + running == 0)
      idle.notify_all();
  }

  void close()
  {
    {
      std::unique_lock lock(mutex);
      idle.wait(lock, [this] { return closed || queued + running == 0; });
      if (std::exchange(closed, true))
        return;
      idle.notify_all();
      workCame.notify_all();
    }
    io.stop();
    supervisor.join();
    // Nobody adds or splices any more once the supervisor and the context have ended.
    for (auto& thread : threads)
      thread.join();
    for (auto& thread : departed)
      thread.join();
  }

  Limits limits;
  std::mutex mutex; // guards the members down to closed
  std::condition_variable workCame;
  std::condition_variable idle;
  std::list<std::thread> threads;
  std::list<std::thread> departed; // surplus threads that have left, to be joined
  std::size_t queued = 0;
  std::size_t running = 0;
  std::uint64_t progress = 0; // tasks begun and ended
  bool closed = false;
  std::thread supervisor;
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> work;
};

ThreadPool::ThreadPool() : ThreadPool(Limits()) {}

ThreadPool::ThreadPool(Limits limits) : _implementation(std::make_unique<Implementation>(limits)) {}

ThreadPool::~ThreadPool() { close(); }

void ThreadPool::post(Task task)
{
  if (!_implementation->post(task, false))
    process()->post(std::move(task));
}

void ThreadPool::postCall(Task task)
{
  if (!_implementation->post(task, true))
    process()->postCall(std::move(task));
}

void ThreadPool::postAfter(std::chrono::milliseconds delay, Task task)
{
  auto timer = std::make_shared<asio::steady_timer>(_implementation->io, delay);
  timer->async_wait(
    [this, timer, task = std::move(task), caller = currentCaller()](const boost::system::error_code& error) mutable
    {
      const CallerScope scope(caller);
      if (!error)
        _implementation->post(task, false);
    });
}

void ThreadPool::close() { _implementation->close(); }

void ThreadPool::waitUntilIdle()
{
  std::unique_lock lock(_implementation->mutex);
  _implementation->idle.wait(lock, [this] { return _implementation->queued + _implementation->running == 0; });
}

bool ThreadPool::runsThisThread() const { return poolOfThisThread == _implementation.get(); }

std::size_t ThreadPool::threadCount() const
{
  const std::lock_guard lock(_implementation->mutex);
  return _implementation->threads.size();
}

const std::shared_ptr<ThreadPool>& ThreadPool::process()
{
  // Never destroyed, as futures of any age may need it.
  static const auto* const pool = new std::shared_ptr<ThreadPool>(std::make_shared<ThreadPool>(Limits{2, 512, 4096}));
  return *pool;
}

} // namespace vu
