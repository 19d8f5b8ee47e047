#pragma once

#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <playedstep.hpp>

namespace ZB::FrameManager
{

/// The few threads that all behaviors share. Nothing blocks on them: services
/// are called, ends announced and waiters served on the broker's pool.
class PlayPool
{
public:
  explicit PlayPool(std::size_t threads);
  /// Stops and joins; what is posted has no turn any more. Every strand and
  /// everything made on one has to be gone, but for what handlers hold.
  ~PlayPool();
  PlayPool(const PlayPool&) = delete;
  PlayPool& operator=(const PlayPool&) = delete;

  Strand makeStrand() { return boost::asio::make_strand(_context); }

private:
  boost::asio::io_context _context;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work;
  std::vector<std::thread> _threads;
};

} // namespace ZB::FrameManager
