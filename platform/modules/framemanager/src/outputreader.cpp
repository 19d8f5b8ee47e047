#include <outputreader.hpp>

#include <utility>

#include <boost/asio/buffer.hpp>

namespace ZB::FrameManager
{

OutputReader::OutputReader(const Strand& strand, FileDescriptor pipe, Sink sink) : _pipe(strand, pipe.get()), _sink(std::move(sink))
{
  pipe.release();
}

void OutputReader::start()
{
  _pipe.async_read_some(boost::asio::buffer(_buffer),
                        [self = shared_from_this()](const boost::system::error_code& error, std::size_t size) { self->received(error, size); });
}

void OutputReader::received(const boost::system::error_code& error, std::size_t size)
{
  if (!_pipe.is_open())
    return;
  take(size);
  if (!error)
    start();
}

void OutputReader::finish()
{
  // Bounded by what a pipe can hold: its other end may be in the hands of a
  // process that left the group and goes on writing.
  constexpr std::size_t pipeCapacity = 1024 * 1024;
  boost::system::error_code error;
  _pipe.non_blocking(true, error);
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
