#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/beast/core/tcp_stream.hpp>

namespace network
{

/// SHA-256 of a certificate.
using Fingerprint = std::array<unsigned char, 32>;

/// Of the first certificate in a PEM text. Throws std::invalid_argument when
/// there is none.
Fingerprint fingerprintOf(const std::string& pem);

/// A TCP connection with or without TLS. HTTP and WebSocket are composed of
/// dozens of operations, each with a handler of a type of its own; here they
/// become one type, so that what lies below is compiled once (stream.cpp).
/// All handlers run where the connection's do, on the one thread of its context.
class Stream
{
public:
  using executor_type = boost::beast::tcp_stream::executor_type;
  using next_layer_type = boost::beast::tcp_stream;
  using error_code = boost::system::error_code;
  using Done = std::function<void(error_code)>;
  using Transferred = std::function<void(error_code, std::size_t)>;

  using Context = std::shared_ptr<boost::asio::ssl::context>;

  /// TLS with a context, which is kept; null: without.
  Stream(boost::asio::ip::tcp::socket socket, Context context);
  /// For next_layer().async_connect() and then setNoDelay().
  Stream(boost::asio::io_context& io, Context context);
  Stream(Stream&& other) noexcept;
  ~Stream();

  executor_type get_executor() noexcept { return _tcp->get_executor(); }
  next_layer_type& next_layer() noexcept { return *_tcp; }
  const next_layer_type& next_layer() const noexcept { return *_tcp; }
  bool isSecure() const noexcept { return _secure != nullptr; }

  /// Small messages leave at once. A socket that is connected already has it.
  void setNoDelay();

  /// Of TLS; without it there is none of these. A client names the host whose
  /// certificate it wants to see, or tells the fingerprint of the only one that
  /// it takes, whatever names it has and until when.
  void acceptHandshake(Done done);
  void handshakeWith(const std::string& host, Done done);
  void handshakeWith(const std::string& host, const Fingerprint& only, Done done);
  void shutdown(Done done);

  template <typename Buffers, typename Handler> void async_read_some(const Buffers& buffers, Handler&& handler)
  {
    read({boost::asio::buffer_sequence_begin(buffers), boost::asio::buffer_sequence_end(buffers)},
         copyable<Transferred>(std::forward<Handler>(handler)));
  }

  template <typename Buffers, typename Handler> void async_write_some(const Buffers& buffers, Handler&& handler)
  {
    write({boost::asio::buffer_sequence_begin(buffers), boost::asio::buffer_sequence_end(buffers)},
          copyable<Transferred>(std::forward<Handler>(handler)));
  }

private:
  struct Secure;

  void handshake(const std::string& host, Done done);
  void read(const std::vector<boost::asio::mutable_buffer>& buffers, Transferred done);
  void write(const std::vector<boost::asio::const_buffer>& buffers, Transferred done);
  void tearDown(boost::beast::role_type role, Done done);

  /// Handlers can only be moved, and are called once.
  template <typename Function, typename Handler> static Function copyable(Handler&& handler)
  {
    return [kept = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler))](auto... results) { (*kept)(results...); };
  }

  template <typename Handler> friend void async_teardown(boost::beast::role_type role, Stream& stream, Handler&& handler)
  {
    stream.tearDown(role, copyable<Done>(std::forward<Handler>(handler)));
  }

  Context _context; ///< which the TLS layer refers to
  // The TLS layer refers to the TCP one, whose place must not change.
  std::unique_ptr<boost::beast::tcp_stream> _tcp;
  std::unique_ptr<Secure> _secure;
};

} // namespace network
