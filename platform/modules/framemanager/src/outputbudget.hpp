#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include <vu/log.hpp>

namespace ZB::FrameManager
{

/// What one behavior may print: its programs and `log` steps together have so
/// much in a second, so that a behavior which prints without end leaves room
/// in the log for everybody else. What is beyond is counted, and one line says
/// how much it was. Used on the behavior's strand.
class OutputBudget : public std::enable_shared_from_this<OutputBudget>
{
public:
  static constexpr std::size_t linesPerSecond = 1000;
  static constexpr std::size_t bytesPerSecond = 256 << 10;

  using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;

  OutputBudget(const Strand& strand, std::string behavior, std::shared_ptr<std::atomic<std::uint64_t>> allLeftOut);
  ~OutputBudget();
  OutputBudget(const OutputBudget&) = delete;
  OutputBudget& operator=(const OutputBudget&) = delete;

  /// Logs the line as the behavior's, or leaves it out.
  void log(vu::log::Level level, const char* function, const std::string& line);

private:
  void beginSecond();
  void tellWhenOver();

  boost::asio::steady_timer _over;
  const std::string _behavior;
  const std::shared_ptr<std::atomic<std::uint64_t>> _allLeftOut;
  std::chrono::steady_clock::time_point _end; ///< of the second that is counted
  std::size_t _lines = 0;
  std::size_t _bytes = 0;
  std::size_t _leftOut = 0;
};

} // namespace ZB::FrameManager
