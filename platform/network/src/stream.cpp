#include <network/stream.hpp>

#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/x509.h>

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

Fingerprint fingerprintOf(const std::string& pem)
{
  const std::unique_ptr<BIO, decltype(&::BIO_free)> memory(::BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &::BIO_free);
  const std::unique_ptr<X509, decltype(&::X509_free)> certificate(::PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr),
                                                                  &::X509_free);
  Fingerprint fingerprint{};
  if (!certificate || ::X509_digest(certificate.get(), ::EVP_sha256(), fingerprint.data(), nullptr) != 1)
    throw std::invalid_argument("there is no certificate");
  return fingerprint;
}

Stream::Stream(asio::ip::tcp::socket socket, Context context)
    : _context(std::move(context)), _tcp(std::make_unique<beast::tcp_stream>(std::move(socket))),
      _secure(_context ? std::make_unique<Secure>(*_tcp, *_context) : nullptr)
{
  setNoDelay();
}

Stream::Stream(asio::io_context& io, Context context) : Stream(asio::ip::tcp::socket(io), std::move(context)) {}

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
  handshake(host, std::move(done));
}

void Stream::handshakeWith(const std::string& host, const Fingerprint& only, Done done)
{
  _secure->set_verify_callback(
      [only](bool, asio::ssl::verify_context& verified)
      {
        auto* const store = verified.native_handle();
        Fingerprint found{};
        // Who has signed it does not matter, so that faults above it do not.
        return ::X509_STORE_CTX_get_error_depth(store) > 0 ||
               (::X509_digest(::X509_STORE_CTX_get_current_cert(store), ::EVP_sha256(), found.data(), nullptr) == 1 && found == only);
      });
  handshake(host, std::move(done));
}

void Stream::handshake(const std::string& host, Done done)
{
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
