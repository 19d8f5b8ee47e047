#include <map>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/websocket.hpp>

#include <vu/log.hpp>
#include <vu/objectbuilder.hpp>

#include "outbox.hpp"
#include "server.hpp"

namespace Tarvik
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::system::error_code;
using Kind = vu::ServiceError::Kind;

namespace
{

class WebSocketConnection final : public Connection, public std::enable_shared_from_this<WebSocketConnection>
{
public:
  WebSocketConnection(std::shared_ptr<Server> server, IoContext io, Stream stream, Client client, const std::string& peer)
      : Connection(peer), _io(std::move(io)), _server(std::move(server)), _client(std::move(client)), _webSocket(std::move(stream)),
        _timer(*_io)
  {
  }

  void accept(const Request& request)
  {
    const auto& limits = _server->options.limits;
    _outbox = std::make_shared<Outbox>(limits.queuedMessages, limits.queuedBytes, _server->backlog, later(&WebSocketConnection::write));
    _client.unsent = _outbox->share();
    _client.openCalls =
        std::make_shared<ZB::ConnectionCalls>(ZB::ConnectionCalls::Limits{limits.openCalls, limits.runningCalls, 2 * limits.messageBytes},
                                              [outbox = _outbox, most = limits.unsentBytes] { return outbox->answerBytes() <= most; });
    _server->enter(shared_from_this());
    _webSocket.set_option(websocket::stream_base::timeout{limits.close, limits.idle, true});
    _webSocket.read_message_max(limits.messageBytes);
    _webSocket.text(true);
    // A browser that has offered protocols wants to hear of one.
    if (beast::http::token_list(request[beast::http::field::sec_websocket_protocol]).exists("tarvik"))
      _webSocket.set_option(websocket::stream_base::decorator([](websocket::response_type& response)
                                                              { response.set(beast::http::field::sec_websocket_protocol, "tarvik"); }));
    _webSocket.async_accept(request,
                            [self = shared_from_this()](error_code error)
                            {
                              if (error)
                                return self->end();
                              self->_accepted = true;
                              self->read();
                            });
  }

  void shutdown() override { _accepted ? close(websocket::close_code::going_away, "the host is shutting down") : abort(); }

  void abort() override
  {
    error_code ignored;
    beast::get_lowest_layer(_webSocket).socket().close(ignored);
    end();
  }

  void revoke(std::uint64_t identity, const std::string& reason) override
  {
    if (_client.identity.number == identity)
      _accepted ? close(websocket::close_code::policy_error, reason) : abort();
  }
  bool isWebSocket() const override { return true; }
  std::optional<Clock::time_point> idleSince() const override
  {
    return _accepted && !_closing && !_busy && _links.empty() && _client.openCalls->open() == 0 ? std::optional(_lastMessage)
                                                                                                : std::nullopt;
  }
  void makeRoom() override { close(websocket::close_code::try_again_later, "the host needs this idle connection for another client"); }
  bool isEnding() const override { return _closing; }
  const Identity& identity() const override { return _client.identity; }

private:
  struct Link
  {
    std::shared_ptr<vu::LocalObject> object;
    vu::SignalLink link;
  };

  void read()
  {
    _webSocket.async_read(_incoming,
                          [self = shared_from_this()](error_code error, std::size_t)
                          {
                            if (error)
                              return self->end();
                            if (self->_closing)
                            {
                              self->_incoming.clear();
                              return self->read();
                            }
                            auto text = beast::buffers_to_string(self->_incoming.data());
                            self->_incoming.clear();
                            self->guarded([&] { self->take(std::move(text)); });
                          });
  }

  /// Calls a member on the gateway's thread, from any other.
  std::function<void()> later(void (WebSocketConnection::*action)())
  {
    return [io = _io, weak = weak_from_this(), action]
    {
      asio::post(*io,
                 [weak, action]
                 {
                   if (const auto self = weak.lock())
                     (self.get()->*action)();
                 });
    };
  }

  /// The next message is read when this one has been understood, so that their
  /// order holds.
  void take(std::string text)
  {
    _lastMessage = Clock::now();
    const auto bytes = text.size();
    if (bytes <= JsonRpc::longMessage)
    {
      auto message = JsonRpc::parse(text);
      handle(message, bytes);
      return readNext();
    }
    _busy = true;
    const auto parse = [io = _io, weak = weak_from_this(), pool = _server->broker->pool(), text = std::move(text)]
    {
      auto message = std::make_shared<JsonRpc::Message>(JsonRpc::parse(text));
      asio::post(*io,
                 [weak, pool, bytes = text.size(), message = std::move(message)]() mutable
                 {
                   if (const auto self = weak.lock())
                     self->guarded([&] { self->handleLong(*message, bytes); });
                   // Letting go of it takes as long as reading it.
                   pool->post([rest = std::move(message)] {});
                 });
    };
    _server->broker->pool()->post(parse);
  }

  void handleLong(JsonRpc::Message& message, std::size_t bytes)
  {
    _busy = false;
    if (!_closing && !_ended)
      handle(message, bytes);
    readNext();
  }

  /// Unless the client has to wait: it leaves its answers unread, or what it
  /// has asked for takes its time.
  void readNext()
  {
    if (_ended)
      return;
    if (!_closing &&
        (_outbox->answerBytes() > _server->options.limits.unsentBytes || !_client.openCalls->hasRoom(later(&WebSocketConnection::readOn))))
    {
      if (!std::exchange(_waits, true))
        awaitRoom();
      return;
    }
    if (std::exchange(_waits, false))
      _timer.cancel();
    read();
  }

  void readOn()
  {
    if (_waits && !_closing)
      readNext();
  }

  /// Nothing is read meanwhile, not even pongs, so that this is bounded.
  void awaitRoom()
  {
    _timer.expires_after(_server->options.limits.idle * 3 / 4);
    _timer.async_wait(
        [self = shared_from_this()](error_code error)
        {
          if (!error && self->_waits)
            self->close(websocket::close_code::policy_error, "this client does not keep up with its answers");
        });
  }

  /// Whatever goes wrong in here, the client does not wait for ever.
  template <typename Action> void guarded(Action action)
  {
    try
    {
      action();
    }
    catch (...)
    {
      vu::log::error("gateway", __func__, _client.address + ": " + vu::errorText(std::current_exception()));
      close(websocket::close_code::internal_error, "the message could not be handled");
    }
  }

  void handle(JsonRpc::Message& message, std::size_t bytes)
  {
    // In a batch, whose answer comes when all of it has been carried out,
    // nothing is held back.
    if (const auto* const request = message.batch ? nullptr : std::get_if<JsonRpc::Request>(&message.entries.front());
        request && request->service == "session" && (request->method == "connect" || request->method == "subscribe") &&
        !request->notification)
    {
      const auto slot = _outbox->reserve();
      _outbox->fill(slot, answerLink(*request));
      return;
    }
    _server->dispatcher->handle(
        message, bytes, _client,
        [this](const JsonRpc::Request& request) -> std::optional<std::string>
        {
          if (request.method == "connect" || request.method == "subscribe" || request.method == "disconnect")
            return answerLink(request);
          return std::nullopt;
        },
        [outbox = _outbox](std::string answer)
        {
          if (!answer.empty())
            outbox->pushAnswer(std::move(answer));
        });
  }

  std::string answerLink(const JsonRpc::Request& request)
  {
    try
    {
      return JsonRpc::result(request.id, link(request));
    }
    catch (...)
    {
      return JsonRpc::error(request.id, request.service, request.method, std::current_exception());
    }
  }

  vu::Value link(const JsonRpc::Request& request)
  {
    const auto& params = request.params;
    const auto text = [&](std::size_t index) { return index < params.size() && params[index].is_string(); };
    const auto wrong = [&request](const std::string& wanted)
    { return vu::ServiceError(request.service, request.method, request.fullName() + " takes " + wanted, Kind::InvalidArguments); };
    if (request.method == "disconnect")
    {
      if (params.size() != 1 || !params[0].is_number_unsigned())
        throw wrong("a link's number");
      disconnect(params[0].get<std::uint64_t>());
      return nullptr;
    }
    if (_links.size() >= _server->options.limits.links)
      throw vu::ServiceError(request.service, request.method, "this connection has " + std::to_string(_links.size()) + " links already",
                             Kind::Overloaded);
    const auto number = _lastLink + 1;
    if (request.method == "connect")
    {
      if (params.size() != 2 || !text(0) || !text(1))
        throw wrong("the names of a service and a signal");
      const auto service = params[0].get<std::string>();
      const auto signal = params[1].get<std::string>();
      connect(service, signal, number,
              [outbox = _outbox, number, service, signal](const vu::Value& arguments) {
                outbox->push(JsonRpc::notification("signal",
                                                   {{"link", number}, {"service", service}, {"signal", signal}, {"arguments", arguments}}));
              });
    }
    else
    {
      if (params.size() != 1 || !text(0))
        throw wrong("an event's key, or \"*\"");
      connect("ZBMemory", "eventRaised", number,
              [outbox = _outbox, number, key = params[0].get<std::string>()](const vu::Value& event)
              {
                if (key == "*" || event[0] == key)
                  outbox->push(JsonRpc::notification("event", {{"link", number}, {"key", event[0]}, {"value", event[1]}}));
              });
    }
    return number;
  }

  /// `callback` runs inside emissions: it only puts a text into the outbox.
  void connect(const std::string& service, const std::string& signal, std::uint64_t number, vu::SignalBase::ValuesCallback callback)
  {
    const auto object = _server->broker->session()->require(service, signal);
    const auto link = object->connect(signal, std::move(callback)).value(); // ready: the service is local
    _lastLink = number;
    _links.emplace(number, Link{object, link});
  }

  void disconnect(std::uint64_t number)
  {
    const auto found = _links.find(number);
    if (found == _links.end())
      return;
    const auto link = found->second;
    _links.erase(found);
    // Waits for a callback under way, which waits for nobody.
    link.object->disconnect(link.link);
  }

  void write()
  {
    if (_outbox->overflowed() && !_closing && !_ended)
    {
      _server->metrics->queueDropped();
      return close(websocket::close_code::policy_error, "this client does not keep up with its signals and answers");
    }
    if (_writing || _closing || _ended)
      return;
    auto text = _outbox->take();
    if (!text)
      return;
    _outgoing = std::move(*text);
    _writing = true;
    _webSocket.async_write(asio::buffer(_outgoing),
                           [self = shared_from_this()](error_code error, std::size_t)
                           {
                             self->_writing = false;
                             if (error)
                               return self->end();
                             self->write();
                             self->_client.openCalls->goOn();
                             self->readOn();
                           });
  }

  /// What is being written is finished first, as long as the client takes it
  /// within the time; then comes the reason.
  void close(websocket::close_code code, const std::string& reason)
  {
    if (_closing || _ended)
      return;
    _closing = true;
    const bool waits = std::exchange(_waits, false);
    letGo();
    vu::log::info("gateway", __func__, _client.identity.name + " at " + _client.address + " is disconnected: " + reason);
    _timer.expires_after(_server->options.limits.close);
    _timer.async_wait(
        [self = shared_from_this()](error_code error)
        {
          if (!error)
            self->abort();
        });
    _webSocket.async_close(websocket::close_reason(code, reason), [self = shared_from_this()](error_code) { self->end(); });
    if (waits)
      read();
  }

  void letGo()
  {
    while (!_links.empty())
      disconnect(_links.begin()->first);
    _outbox->close();
    _client.openCalls->close();
  }

  void end()
  {
    if (_ended)
      return;
    _ended = true;
    letGo();
    _timer.cancel();
    error_code ignored;
    beast::get_lowest_layer(_webSocket).socket().close(ignored);
    _server->leave(this);
  }

  const IoContext _io; // destroyed last
  const std::shared_ptr<Server> _server;
  Client _client;
  websocket::stream<Stream, false> _webSocket; // without compression
  asio::steady_timer _timer;
  std::shared_ptr<Outbox> _outbox;
  std::map<std::uint64_t, Link> _links; ///< by number on the wire
  std::uint64_t _lastLink = 0;
  beast::flat_buffer _incoming;
  std::string _outgoing;
  Clock::time_point _lastMessage = Clock::now();
  bool _accepted = false;
  bool _busy = false;  ///< a long message is being read
  bool _waits = false; ///< nothing more is read for now
  bool _writing = false;
  bool _closing = false;
  bool _ended = false;
};

} // namespace

void serveWebSocket(std::shared_ptr<Server> server, IoContext io, Stream stream, Client client, const std::string& peer,
                    const Request& request)
{
  std::make_shared<WebSocketConnection>(std::move(server), std::move(io), std::move(stream), std::move(client), peer)->accept(request);
}

} // namespace Tarvik
