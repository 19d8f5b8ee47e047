#include <host/watchdog.hpp>

#include <utility>

namespace Tarvik
{

Watchdog::Watchdog(boost::asio::io_context& io, std::shared_ptr<vu::ThreadPool> pool, std::chrono::microseconds limit,
                   std::function<void()> alive)
    : _timer(io), _pool(std::move(pool)), _interval(limit / 2), _alive(std::move(alive))
{
  wait();
}

void Watchdog::wait()
{
  if (_progress->exchange(false))
  {
    _alive();
    _pool->postUrgent([progress = _progress] { *progress = true; });
  }
  _timer.expires_after(_interval);
  _timer.async_wait(
      [this](const boost::system::error_code& error)
      {
        if (!error)
          wait();
      });
}

} // namespace Tarvik
