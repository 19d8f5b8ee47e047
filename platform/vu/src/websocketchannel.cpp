#include "websocketchannel.hpp"

#include <deque>
#include <future>
#include <thread>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <vu/error.hpp>

namespace vu
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using boost::system::error_code;

HostAddress HostAddress::parse(const std::string& url)
{
  const auto fail = [&url]
  {
    return ServiceError("session", "", "'" + url + "' is no host's address: write it as http://ADDRESS:PORT",
                        ServiceError::Kind::InvalidArguments);
  };
  HostAddress address;
  std::string rest;
  if (url.starts_with("http://"))
    rest = url.substr(7);
  else if (url.starts_with("https://"))
  {
    address.secure = true;
    rest = url.substr(8);
  }
  else
    throw fail();
  if (rest.ends_with('/'))
    rest.pop_back();
  const auto colon = rest.rfind(':');
  const auto bracket = rest.rfind(']');
  const bool hasPort = colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  address.host = rest.substr(0, hasPort ? colon : std::string::npos);
  address.port = hasPort ? rest.substr(colon + 1) : address.secure ? "443" : "80";
  if (address.host.starts_with('[') && address.host.ends_with(']'))
    address.host = address.host.substr(1, address.host.size() - 2);
  if (address.host.empty() || address.host.find_first_of("/?#@[] ") != std::string::npos || address.port.empty() ||
      address.port.find_first_not_of("0123456789") != std::string::npos)
    throw fail();
  return address;
}

std::string HostAddress::authority() const { return (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + port; }

namespace
{

/// The host sends nothing larger: its own queue is not.
constexpr std::size_t maximumMessage = 64 << 20;

// The channel's one thread is known, so nothing has to be able to run elsewhere:
// with the general executors all of this takes far longer to compile.
using Executor = asio::io_context::executor_type;
using Socket = asio::basic_stream_socket<asio::ip::tcp, Executor>;
using Resolver = asio::ip::basic_resolver<asio::ip::tcp, Executor>;
using Timer = asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>, Executor>;

template <typename Stream> class Channel final : public WebSocketChannel
{
public:
  template <typename... StreamArguments>
  Channel(const RemoteSession::Options& options, HostAddress address, Handlers handlers, StreamArguments&&... arguments)
      : _options(options), _address(std::move(address)), _handlers(std::move(handlers)), _resolver(_io),
        _webSocket(_io, std::forward<StreamArguments>(arguments)...), _timer(_io)
  {
  }

  ~Channel() override { close(); }

  void open()
  {
    _timer.expires_after(_options.timeout);
    _timer.async_wait(
        [this](error_code error)
        {
          if (!error)
            fail("it did not answer within " + std::to_string(_options.timeout.count()) + " ms");
        });
    _resolver.async_resolve(_address.host, _address.port,
                            [this](error_code error, const Resolver::results_type& endpoints)
                            {
                              if (error)
                                return fail(error.message());
                              asio::async_connect(beast::get_lowest_layer(_webSocket), endpoints,
                                                  [this](error_code error, const auto&) { error ? fail(error.message()) : secure(); });
                            });
    auto opened = _opened.get_future();
    _thread = std::thread([this] { _io.run(); });
    opened.get();
  }

  void send(std::string text) override
  {
    asio::post(_io,
               [this, text = std::move(text)]() mutable
               {
                 if (_state != State::Open)
                   return;
                 _outgoing.push_back(std::move(text));
                 if (_outgoing.size() == 1)
                   write();
               });
  }

  void close() override
  {
    if (!_thread.joinable())
      return;
    asio::post(_io,
               [this]
               {
                 if (_state != State::Open)
                   return abort();
                 _state = State::Closing;
                 _timer.expires_after(std::chrono::seconds(1));
                 _timer.async_wait(
                     [this](error_code error)
                     {
                       if (!error)
                         abort();
                     });
                 _webSocket.async_close(websocket::close_code::normal, [this](error_code) { abort(); });
               });
    _thread.join();
  }

private:
  enum class State
  {
    Connecting,
    Open,
    Closing,
    Ended
  };

  void secure()
  {
    error_code ignored;
    beast::get_lowest_layer(_webSocket).set_option(asio::ip::tcp::no_delay(true), ignored);
    if constexpr (std::is_same_v<Stream, Socket>)
      greet();
    else
    {
      _webSocket.next_layer().set_verify_callback(asio::ssl::host_name_verification(_address.host));
      error_code isName;
      asio::ip::make_address(_address.host, isName);
      if (isName) // addresses are not sent as server names
        SSL_set_tlsext_host_name(_webSocket.next_layer().native_handle(), _address.host.c_str());
      _webSocket.next_layer().async_handshake(asio::ssl::stream_base::client,
                                              [this](error_code error) { error ? fail(error.message()) : greet(); });
    }
  }

  void greet()
  {
    _webSocket.set_option(websocket::stream_base::timeout{std::chrono::seconds(30), _options.idle, true});
    _webSocket.set_option(websocket::stream_base::decorator([token = _options.token](websocket::request_type& request)
                                                            { request.set(http::field::authorization, "Bearer " + token); }));
    _webSocket.read_message_max(maximumMessage);
    _webSocket.text(true);
    _webSocket.async_handshake(_answer, _address.authority(), "/rpc",
                               [this](error_code error)
                               {
                                 if (error == websocket::error::upgrade_declined &&
                                     (_answer.result() == http::status::unauthorized || _answer.result() == http::status::forbidden))
                                   return refuse();
                                 if (error == websocket::error::upgrade_declined)
                                   return fail("it answered " + std::to_string(_answer.result_int()) + " " + _answer.body());
                                 if (error)
                                   return fail(error.message());
                                 if (_state != State::Connecting)
                                   return;
                                 _state = State::Open;
                                 _timer.cancel();
                                 _opened.set_value();
                                 read();
                               });
  }

  void read()
  {
    _webSocket.async_read(_incoming,
                          [this](error_code error, std::size_t)
                          {
                            if (error)
                              return lost(error);
                            const auto text = beast::buffers_to_string(_incoming.data());
                            _incoming.clear();
                            _handlers.message(text);
                            read();
                          });
  }

  void write()
  {
    _webSocket.async_write(asio::buffer(_outgoing.front()),
                           [this](error_code error, std::size_t)
                           {
                             // The read fails as well, and tells.
                             if (error)
                               return closeSocket();
                             _outgoing.pop_front();
                             if (!_outgoing.empty())
                               write();
                           });
  }

  void lost(error_code error)
  {
    if (_state != State::Open)
      return;
    const auto& said = _webSocket.reason();
    std::string reason = error.message();
    if (said.code != websocket::close_code::none)
      reason = said.reason.empty() ? "the host closed the connection (" + std::to_string(said.code) + ")" : said.reason.c_str();
    abort();
    _handlers.closed(reason);
  }

  void refuse()
  {
    end(ServiceError("session", "", "the host at " + _options.url + " refuses: " + _answer.body(), ServiceError::Kind::NotAllowed));
  }

  void fail(const std::string& reason)
  {
    end(ServiceError("session", "", "no host reached at " + _options.url + ": " + reason, ServiceError::Kind::ConnectionLost));
  }

  void end(const ServiceError& error)
  {
    if (_state != State::Connecting)
      return;
    abort();
    _opened.set_exception(std::make_exception_ptr(error));
  }

  void closeSocket()
  {
    error_code ignored;
    beast::get_lowest_layer(_webSocket).close(ignored);
  }

  void abort()
  {
    _state = State::Ended;
    _timer.cancel();
    _resolver.cancel();
    closeSocket();
    _io.stop(); // a timer of the WebSocket may still be waiting
  }

  // The thread of the channel alone touches what follows, once it runs.
  const RemoteSession::Options _options;
  const HostAddress _address;
  const Handlers _handlers;
  asio::io_context _io{1};
  Resolver _resolver;
  websocket::stream<Stream, false> _webSocket; // without compression
  Timer _timer;
  websocket::response_type _answer;
  beast::flat_buffer _incoming;
  std::deque<std::string> _outgoing;
  State _state = State::Connecting;
  std::promise<void> _opened;
  std::thread _thread;
};

/// A channel over TLS keeps the context its stream refers to.
class SecureChannel final : public WebSocketChannel
{
public:
  SecureChannel(const RemoteSession::Options& options, HostAddress address, Handlers handlers)
      : _context(makeContext(options)), _channel(options, std::move(address), std::move(handlers), _context)
  {
    _channel.open();
  }

  void send(std::string text) override { _channel.send(std::move(text)); }
  void close() override { _channel.close(); }

private:
  static asio::ssl::context makeContext(const RemoteSession::Options& options)
  {
    asio::ssl::context context(asio::ssl::context::tls_client);
    context.set_verify_mode(asio::ssl::verify_peer);
    error_code error;
    if (options.certificateAuthority.empty())
      context.set_default_verify_paths(error);
    else
      context.load_verify_file(options.certificateAuthority, error);
    if (error)
      throw ServiceError("session", "", "the certificate authority " + options.certificateAuthority + " cannot be read: " + error.message(),
                         ServiceError::Kind::ConnectionLost);
    return context;
  }

  asio::ssl::context _context;
  Channel<asio::ssl::stream<Socket>> _channel;
};

} // namespace

std::unique_ptr<WebSocketChannel> WebSocketChannel::connect(const RemoteSession::Options& options, Handlers handlers)
{
  auto address = HostAddress::parse(options.url);
  if (address.secure)
    return std::make_unique<SecureChannel>(options, std::move(address), std::move(handlers));
  auto channel = std::make_unique<Channel<Socket>>(options, std::move(address), std::move(handlers));
  channel->open();
  return channel;
}

} // namespace vu
