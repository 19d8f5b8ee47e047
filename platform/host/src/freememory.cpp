#include <host/freememory.hpp>

#include <chrono>

#include <malloc.h>

namespace Tarvik
{

namespace
{
constexpr std::chrono::seconds interval(10);
} // namespace

FreeMemory::FreeMemory(boost::asio::io_context& io) : _timer(io) { wait(); }

void FreeMemory::wait()
{
  _timer.expires_after(interval);
  _timer.async_wait(
      [this](const boost::system::error_code& error)
      {
        if (error)
          return;
        ::malloc_trim(0);
        wait();
      });
}

} // namespace Tarvik
