#include <outputreader.hpp>

#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

namespace ZB::FrameManager
{

OutputReader::OutputReader(const Strand& strand, FileDescriptor pipe, Sink sink) : _pipe(strand, pipe.get()), _sink(std::move(sink))
{
  pipe.release();
  _pipe.non_blocking(true);
}

void OutputReader::start()
{
  // It waits and then reads here: an asynchronous read fills the buffer on
  // another thread, and finish() would lose or mix what it has taken already.
  _pipe.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                   [self = shared_from_this()](const boost::system::error_code& error) { self->readable(error); });
}

void OutputReader::readable(const boost::system::error_code& error)
{
  if (error || !_pipe.is_open())
    return;
  boost::system::error_code ended;
  take(_pipe.read_some(boost::asio::buffer(_buffer), ended));
  if (!ended || ended == boost::asio::error::would_block)
    start();
}

void OutputReader::finish()
{
  // Bounded by what a pipe can hold: its other end may be in the hands of a
  // process that left the group and goes on writing.
  constexpr std::size_t pipeCapacity = 1024 * 1024;
  boost::system::error_code error;
  for (std::size_t total = 0; !error && total < pipeCapacity;)
  {
    const auto size = _pipe.read_some(boost::asio::buffer(_buffer), error);
    take(size);
    total += size;
  }
  if (!_line.empty())
    flush();
  _pipe.close(error);
}

void OutputReader::take(std::size_t size)
{
  for (std::size_t i = 0; i < size; ++i)
  {
    if (_buffer[i] == '\n')
      flush();
    else
      _line += _buffer[i];
    if (_line.size() == lineLimit)
      flush();
  }
}

void OutputReader::flush() { _sink(std::exchange(_line, {})); }

} // namespace ZB::FrameManager
