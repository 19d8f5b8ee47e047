#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <vu/threadpool.hpp>

namespace Tarvik
{

/// Tells a service manager regularly that the host is alive, as long as its
/// pool makes progress: each time, the task that was posted the time before
/// must have run. A host whose threads are all stuck falls silent and is
/// started anew.
///
/// Runs on the io context's thread, which also destroys it.
class Watchdog
{
public:
  /// `alive` is called every half of `limit`, the time after which the
  /// service manager loses its patience.
  Watchdog(boost::asio::io_context& io, std::shared_ptr<vu::ThreadPool> pool, std::chrono::microseconds limit, std::function<void()> alive);

private:
  void wait();

  boost::asio::steady_timer _timer;
  const std::shared_ptr<vu::ThreadPool> _pool;
  const std::chrono::microseconds _interval;
  const std::function<void()> _alive;
  const std::shared_ptr<std::atomic<bool>> _progress = std::make_shared<std::atomic<bool>>(true);
};

} // namespace Tarvik
