#include "websocketchannel.hpp"

#include <atomic>
#include <chrono>
#include <deque>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <thread>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <network/stream.hpp>
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
constexpr std::size_t mostOutgoing = 10000;

class Channel final : public WebSocketChannel
{
public:
  Channel(const ConnectionOptions& options, HostAddress address, Handlers handlers)
      : _options(options), _address(std::move(address)), _handlers(std::move(handlers)), _tls(makeContext()),
        _fingerprint(readFingerprint()), _resolver(_io), _webSocket(_io, _tls), _timer(_io)
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
                            [this](error_code error, const asio::ip::tcp::resolver::results_type& endpoints)
                            {
                              if (error)
                                return fail(error.message());
                              beast::get_lowest_layer(_webSocket)
                                  .async_connect(endpoints,
                                                 [this](error_code error, const auto&) { error ? fail(error.message()) : secure(); });
                            });
    auto opened = _opened.get_future();
    _thread = std::thread([this] { _io.run(); });
    opened.get();
  }

  bool send(std::string text) override
  {
    const auto bytes = text.size();
    if (const auto before = _outgoingBytes.fetch_add(bytes);
        _outgoingMessages++ >= mostOutgoing || (before != 0 && before + bytes > _options.outgoingBytes))
    {
      left(bytes);
      return false;
    }
    asio::post(_io,
               [this, text = std::move(text)]() mutable
               {
                 if (_state != State::Open)
                   return left(text.size());
                 _outgoing.push_back(std::move(text));
                 if (_outgoing.size() == 1)
                   write();
               });
    return true;
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

  void left(std::size_t bytes)
  {
    --_outgoingMessages;
    _outgoingBytes -= bytes;
  }

  void secure()
  {
    _webSocket.next_layer().setNoDelay();
    if (!_tls)
      return greet();
    const auto done = [this](error_code error) { error ? fail(error.message()) : greet(); };
    if (_fingerprint)
      _webSocket.next_layer().handshakeWith(_address.host, *_fingerprint, done);
    else
      _webSocket.next_layer().handshakeWith(_address.host, done);
  }

  void greet()
  {
    _webSocket.set_option(websocket::stream_base::timeout{_options.timeout, _options.idle, true});
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
                             left(_outgoing.front().size());
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

  void closeSocket() { beast::get_lowest_layer(_webSocket).close(); }

  void abort()
  {
    _state = State::Ended;
    _timer.cancel();
    _resolver.cancel();
    closeSocket();
    _io.stop(); // a timer of the WebSocket may still be waiting
  }

  [[noreturn]] static void refuseFile(const std::string& what, const std::string& file, const std::string& reason)
  {
    throw ServiceError("session", "", "the " + what + " " + file + " cannot be read: " + reason, ServiceError::Kind::ConnectionLost);
  }

  /// None without TLS.
  network::Stream::Context makeContext() const
  {
    if (!_address.secure)
      return nullptr;
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    ::SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->set_verify_mode(asio::ssl::verify_peer);
    error_code error;
    context->set_default_verify_paths(error); // a system without any has none that could be trusted
    if (const auto& file = _options.certificateAuthority; !file.empty())
      if (context->load_verify_file(file, error); error)
        refuseFile("certificate authority", file, error.message());
    return context;
  }

  std::optional<network::Fingerprint> readFingerprint() const
  {
    const auto& name = _options.hostCertificate;
    if (!_address.secure || name.empty())
      return std::nullopt;
    std::ifstream file(name);
    try
    {
      return network::fingerprintOf({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
    }
    catch (const std::invalid_argument& error)
    {
      refuseFile("host's certificate", name, error.what());
    }
  }

  std::atomic<std::size_t> _outgoingMessages = 0;
  std::atomic<std::size_t> _outgoingBytes = 0;
  // The thread of the channel alone touches what follows, once it runs.
  const ConnectionOptions _options;
  const HostAddress _address;
  const Handlers _handlers;
  const network::Stream::Context _tls;
  const std::optional<network::Fingerprint> _fingerprint;
  asio::io_context _io{1};
  asio::ip::tcp::resolver _resolver;
  websocket::stream<network::Stream, false> _webSocket; // without compression
  asio::steady_timer _timer;
  websocket::response_type _answer;
  beast::flat_buffer _incoming;
  std::deque<std::string> _outgoing;
  State _state = State::Connecting;
  std::promise<void> _opened;
  std::thread _thread;
};

} // namespace

std::unique_ptr<WebSocketChannel> WebSocketChannel::connect(const ConnectionOptions& options, Handlers handlers)
{
  auto address = HostAddress::parse(options.url);
  auto channel = std::make_unique<Channel>(options, std::move(address), std::move(handlers));
  channel->open();
  return channel;
}

} // namespace vu
