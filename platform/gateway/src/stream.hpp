#pragma once

#include <memory>
#include <optional>
#include <utility>

#include <boost/asio/ssl.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/teardown.hpp>

namespace Tarvik
{

/// A TCP connection with or without TLS: one type, so that HTTP and WebSocket
/// are compiled once for both.
class Stream
{
public:
  using executor_type = boost::beast::tcp_stream::executor_type;
  using next_layer_type = boost::beast::tcp_stream;
  using Secure = boost::asio::ssl::stream<boost::beast::tcp_stream&>;

  /// TLS with a context; it must outlive the stream.
  Stream(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context* context)
      : _tcp(std::make_unique<boost::beast::tcp_stream>(std::move(socket))),
        _secure(context ? std::make_unique<Secure>(*_tcp, *context) : nullptr)
  {
  }

  executor_type get_executor() noexcept { return _tcp->get_executor(); }
  next_layer_type& next_layer() noexcept { return *_tcp; }
  const next_layer_type& next_layer() const noexcept { return *_tcp; }
  Secure* secure() noexcept { return _secure.get(); }

  template <typename Buffers, typename Handler> void async_read_some(const Buffers& buffers, Handler&& handler)
  {
    if (_secure)
      _secure->async_read_some(buffers, std::forward<Handler>(handler));
    else
      _tcp->async_read_some(buffers, std::forward<Handler>(handler));
  }

  template <typename Buffers, typename Handler> void async_write_some(const Buffers& buffers, Handler&& handler)
  {
    if (_secure)
      _secure->async_write_some(buffers, std::forward<Handler>(handler));
    else
      _tcp->async_write_some(buffers, std::forward<Handler>(handler));
  }

private:
  // The TLS layer refers to the TCP one, whose place must not change.
  std::unique_ptr<boost::beast::tcp_stream> _tcp;
  std::unique_ptr<Secure> _secure;
};

/// Found by Beast when a WebSocket has said goodbye.
template <typename Handler> void async_teardown(boost::beast::role_type role, Stream& stream, Handler&& handler)
{
  if (stream.secure())
    stream.secure()->async_shutdown(std::forward<Handler>(handler));
  else
    boost::beast::websocket::async_teardown(role, stream.next_layer().socket(), std::forward<Handler>(handler));
}

} // namespace Tarvik
