#include <host/watchdog.hpp>

#include <utility>

namespace Tarvik
{

Watchdog::Watchdog(boost::asio::io_context& io, std::chrono::microseconds limit, Probe probe, std::function<void()> alive)
    : _timer(io), _interval(limit / 2), _probe(std::move(probe)), _alive(std::move(alive))
{
  wait();
}

void Watchdog::wait()
{
  if (_progress->exchange(false))
  {
    _alive();
    _probe([progress = _progress] { *progress = true; });
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
