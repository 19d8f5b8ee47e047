#include <network/stream.hpp>

#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/websocket/teardown.hpp>

namespace network
{

namespace asio = boost::asio;
namespace beast = boost::beast;

struct Stream::Secure : asio::ssl::stream<beast::tcp_stream&>
{
  using stream::stream;
};

Stream::Stream(asio::ip::tcp::socket socket, asio::ssl::context* context)
    : _tcp(std::make_unique<beast::tcp_stream>(std::move(socket))), _secure(context ? std::make_unique<Secure>(*_tcp, *context) : nullptr)
{
  setNoDelay();
}

Stream::Stream(asio::io_context& io, asio::ssl::context* context) : Stream(asio::ip::tcp::socket(io), context) {}

Stream::Stream(Stream&& other) noexcept = default;
Stream::~Stream() = default;

void Stream::setNoDelay()
{
  error_code ignored;
  _tcp->socket().set_option(asio::ip::tcp::no_delay(true), ignored);
}

void Stream::acceptHandshake(Done done) { _secure->async_handshake(asio::ssl::stream_base::server, std::move(done)); }

void Stream::handshakeWith(const std::string& host, Done done)
{
  _secure->set_verify_callback(asio::ssl::host_name_verification(host));
  error_code isName;
  asio::ip::make_address(host, isName);
  if (isName) // addresses are not sent as server names
    SSL_set_tlsext_host_name(_secure->native_handle(), host.c_str());
  _secure->async_handshake(asio::ssl::stream_base::client, std::move(done));
}

void Stream::shutdown(Done done) { _secure->async_shutdown(std::move(done)); }

void Stream::read(const std::vector<asio::mutable_buffer>& buffers, Transferred done)
{
  if (_secure)
    _secure->async_read_some(buffers, std::move(done));
  else
    _tcp->async_read_some(buffers, std::move(done));
}

void Stream::write(const std::vector<asio::const_buffer>& buffers, Transferred done)
{
  if (_secure)
    _secure->async_write_some(buffers, std::move(done));
  else
    _tcp->async_write_some(buffers, std::move(done));
}

void Stream::tearDown(beast::role_type role, Done done)
{
  if (_secure)
    shutdown(std::move(done));
  else
    beast::websocket::async_teardown(role, _tcp->socket(), std::move(done));
}

} // namespace network
