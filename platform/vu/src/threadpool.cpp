#include <vu/threadpool.hpp>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <limits>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/log.hpp>

namespace vu
{

namespace asio = boost::asio;
using namespace std::chrono_literals;

namespace
{
constexpr auto stallTime = 5ms; // without progress, before a thread is added
constexpr int mostUrgentInARow = 16;

using Clock = std::chrono::steady_clock;

thread_local const void* poolOfThisThread = nullptr;
} // namespace

struct ThreadPool::Implementation
{
  enum class Kind
  {
    Usual,
    Call, ///< may be refused
    Urgent
  };
  struct Posted
  {
    Task task;
    std::string caller;
  };

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
    try
    {
      threads.back() = std::thread([this, self = std::prev(threads.end())] { workUntilIdle(self); });
    }
    catch (...)
    {
      threads.pop_back();
      throw;
    }
  }

  /// Where the system gives no more threads, those that exist are the bound
  /// from then on; mutex held.
  void grow()
  {
    try
    {
      addThread();
      enough = std::max(enough, threads.size());
    }
    catch (const std::system_error& error)
    {
      limits.maximum = threads.size();
      growthError = "the system gives no thread beyond " + std::to_string(limits.maximum) + ": " + error.what();
    }
  }

  void workUntilIdle(std::list<std::thread>::iterator self)
  {
    poolOfThisThread = this;
    for (;;)
    {
      const bool worked = io.run_one_for(limits.idle) > 0;
      const std::lock_guard lock(mutex);
      if (!worked && closed && io.stopped())
        return; // joined by close()
      if (!closed && threads.size() > limits.threads && (!worked || isSurplus()))
      {
        departed.splice(departed.end(), threads, self);
        return;
      }
    }
  }

  /// Whether fewer threads have done for an idle time. The context hands work
  /// to all threads in turn, so that under a steady load none is ever idle for
  /// long; mutex held.
  bool isSurplus()
  {
    const auto now = Clock::now();
    if (now - periodBegan >= limits.idle)
    {
      enough = mostRunning;
      mostRunning = running;
      periodBegan = now;
    }
    return threads.size() > std::max(enough, running + queued());
  }

  /// Posts what is due and adds a thread whenever work waits, all threads are
  /// busy and nothing moves. Timers are kept here and not in the context, which would not look
  /// at them while all its threads are blocked.
  void supervise()
  {
    std::unique_lock lock(mutex);
    std::optional<std::uint64_t> seen; // the progress at the last look, where work waited
    auto look = Clock::time_point::max();
    while (!closed)
    {
      const auto now = Clock::now();
      if (queued() > 0 && running >= threads.size() && seen == progress && now >= look && threads.size() < limits.maximum)
        grow();
      if (now >= look || (watching && look == Clock::time_point::max()))
      {
        watching = queued() > 0 || now < look;
        seen = queued() > 0 ? std::optional(progress) : std::nullopt;
        look = watching ? now + stallTime : Clock::time_point::max();
      }
      if (!attendTo(lock, now))
        news.wait_until(lock, std::min(look, timers.empty() ? now + 1h : timers.begin()->first));
    }
  }

  /// What may not happen under the lock, which is held before and after; true
  /// when there was something.
  bool attendTo(std::unique_lock<std::mutex>& lock, Clock::time_point now)
  {
    const auto firstLater = timers.upper_bound(now);
    if (timers.begin() == firstLater && departed.empty() && growthError.empty())
      return false;
    std::vector<Posted> due;
    for (auto timer = timers.begin(); timer != firstLater; timer = timers.erase(timer))
      due.push_back(std::move(timer->second));
    auto leaving = std::exchange(departed, {});
    const auto trouble = std::exchange(growthError, {});
    lock.unlock();
    for (auto& timer : due)
      post(timer.task, timer.caller, Kind::Usual);
    due.clear();
    for (auto& thread : leaving)
      thread.join();
    if (!trouble.empty())
      log::warning("vu", "supervise", trouble);
    lock.lock();
    return true;
  }

  /// False when the pool is closed.
  bool post(Task& task, const std::string& caller, Kind kind)
  {
    {
      const std::lock_guard lock(mutex);
      if (closed)
        return false;
      if (kind == Kind::Call && threads.size() >= limits.maximum && running >= limits.maximum && queued() >= limits.queue)
        throw ServiceError(
            {}, {}, "the host is overloaded: all its threads are busy and " + std::to_string(queued()) + " calls wait; try again later",
            ServiceError::Kind::Overloaded);
      (kind == Kind::Urgent ? urgent : usual).push_back({std::move(task), caller});
      if (!std::exchange(watching, true))
        news.notify_all();
    }
    asio::post(io, [this] { runNext(); });
    return true;
  }

  /// Of those that wait, the first urgent one; mutex held.
  Posted takeNext()
  {
    const bool isUrgent = !urgent.empty() && (usual.empty() || urgentInARow < mostUrgentInARow);
    urgentInARow = isUrgent ? urgentInARow + 1 : 0;
    auto& line = isUrgent ? urgent : usual;
    auto next = std::move(line.front());
    line.pop_front();
    return next;
  }

  void runNext()
  {
    Posted next;
    {
      const std::lock_guard lock(mutex);
      next = takeNext();
      mostRunning = std::max(mostRunning, ++running);
      ++progress;
    }
    try
    {
      const CallerScope scope(next.caller);
      next.task();
    }
    catch (...)
    {
      log::callbackError("a posted task");
    }
    next.task = nullptr;
    const std::lock_guard lock(mutex);
    --running;
    ++progress;
    if (queued() + running == 0)
      idle.notify_all();
  }

  void postAfter(std::chrono::milliseconds delay, Task task)
  {
    const auto due = Clock::now() + delay;
    const std::lock_guard lock(mutex);
    if (closed)
      return;
    const auto timer = timers.emplace(due, Posted{std::move(task), currentCaller()});
    if (timer == timers.begin())
      news.notify_all();
  }

  void close()
  {
    // Dropped last and outside the lock: it may hold the pool itself.
    std::multimap<Clock::time_point, Posted> dropped;
    {
      std::unique_lock lock(mutex);
      idle.wait(lock, [this] { return closed || queued() + running == 0; });
      if (std::exchange(closed, true))
        return;
      idle.notify_all();
      news.notify_all();
      dropped.swap(timers);
    }
    io.stop();
    supervisor.join();
    // Nobody adds or splices any more once the supervisor and the context have ended.
    for (auto& thread : threads)
      thread.join();
    for (auto& thread : departed)
      thread.join();
  }

  std::size_t queued() const { return urgent.size() + usual.size(); }

  Limits limits;                // `maximum` guarded by mutex, the rest constant
  std::mutex mutex;             // guards the members down to closed
  std::condition_variable news; // for the supervisor: work, an earlier timer, the end
  std::condition_variable idle;
  std::list<std::thread> threads;
  std::list<std::thread> departed; // surplus threads that have left, to be joined
  std::deque<Posted> urgent;       // each of these two waits for a turn of the context, which takes the next there is
  std::deque<Posted> usual;
  int urgentInARow = 0;
  std::size_t running = 0;
  std::uint64_t progress = 0;                                   // tasks begun and ended
  std::size_t mostRunning = 0;                                  // since periodBegan
  std::size_t enough = std::numeric_limits<std::size_t>::max(); // threads, by the last whole period
  Clock::time_point periodBegan = Clock::now();
  bool watching = false; // the supervisor looks, or is on its way to
  std::multimap<Clock::time_point, Posted> timers;
  std::string growthError; // to be logged
  bool closed = false;
  std::thread supervisor;
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> work;
};

ThreadPool::ThreadPool() : ThreadPool(Limits()) {}

ThreadPool::ThreadPool(Limits limits) : _implementation(std::make_unique<Implementation>(limits)) {}

ThreadPool::~ThreadPool()
{
  if (!runsThisThread())
  {
    close();
    return;
  }
  // A task held the last handle, and no thread can join itself.
  process()->post([last = std::shared_ptr<Implementation>(std::move(_implementation))] { last->close(); });
}

void ThreadPool::post(Task task)
{
  if (!_implementation->post(task, currentCaller(), Implementation::Kind::Usual))
    process()->post(std::move(task));
}

void ThreadPool::postUrgent(Task task)
{
  if (!_implementation->post(task, currentCaller(), Implementation::Kind::Urgent))
    process()->postUrgent(std::move(task));
}

void ThreadPool::postCall(Task task)
{
  if (!_implementation->post(task, currentCaller(), Implementation::Kind::Call))
    process()->postCall(std::move(task));
}

void ThreadPool::postAfter(std::chrono::milliseconds delay, Task task) { _implementation->postAfter(delay, std::move(task)); }

void ThreadPool::close() { _implementation->close(); }

void ThreadPool::waitUntilIdle()
{
  std::unique_lock lock(_implementation->mutex);
  _implementation->idle.wait(lock, [this] { return _implementation->queued() + _implementation->running == 0; });
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
