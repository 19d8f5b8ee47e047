#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/posix/stream_descriptor.hpp>

#include <filedescriptor.hpp>
#include <playedstep.hpp>

namespace ZB::FrameManager
{

/// Reads a pipe line by line on a strand. A line longer than the limit comes
/// in parts.
class OutputReader : public std::enable_shared_from_this<OutputReader>
{
public:
  using Sink = std::function<void(const std::string& line)>;
  static constexpr std::size_t lineLimit = 8192;

  OutputReader(const Strand& strand, FileDescriptor pipe, Sink sink);

  void start();
  /// Takes what stands in the pipe now, whoever may hold its other end, and
  /// closes it.
  void finish();

private:
  void readable(const boost::system::error_code& error);
  void take(std::size_t size);
  void flush();

  boost::asio::posix::stream_descriptor _pipe;
  const Sink _sink;
  std::array<char, 4096> _buffer;
  std::string _line;
};

} // namespace ZB::FrameManager
