#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace Tarvik
{

/// Tells a service manager regularly that the host is alive, as long as its
/// threads make progress: each time, the probe that was sent the time before
/// must have come back. A host of which a part is stuck falls silent and is
/// started anew.
///
/// Runs on the io context's thread, which also destroys it.
class Watchdog
{
public:
  /// Calls what it is given when all parts have got something done; on any thread.
  using Probe = std::function<void(std::function<void()> done)>;

  /// `alive` is called every half of `limit`, the time after which the
  /// service manager loses its patience.
  Watchdog(boost::asio::io_context& io, std::chrono::microseconds limit, Probe probe, std::function<void()> alive);

private:
  void wait();

  boost::asio::steady_timer _timer;
  const std::chrono::microseconds _interval;
  const Probe _probe;
  const std::function<void()> _alive;
  const std::shared_ptr<std::atomic<bool>> _progress = std::make_shared<std::atomic<bool>>(true);
};

} // namespace Tarvik
