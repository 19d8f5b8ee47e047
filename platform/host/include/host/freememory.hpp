#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace Tarvik
{

/// Gives the memory that is free in the heap back to the system every few
/// seconds, on the thread of `io`. Left to itself, the allocator keeps for each
/// thread what the largest burst has taken there. Ends with the object.
class FreeMemory
{
public:
  explicit FreeMemory(boost::asio::io_context& io);

private:
  void wait();

  boost::asio::steady_timer _timer;
};

} // namespace Tarvik
