#include <array>
#include <cerrno>

#include <sys/socket.h>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/version.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <vu/caller.hpp>
#include <vu/log.hpp>

#include "expression.hpp"
#include "pages.hpp"
#include "server.hpp"

namespace Tarvik
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace
{

class HttpConnection final : public Connection, public std::enable_shared_from_this<HttpConnection>
{
public:
  HttpConnection(std::shared_ptr<Server> server, IoContext io, asio::ip::tcp::socket socket)
      : _io(std::move(io)), _server(std::move(server)), _stream(std::move(socket), _server->tls.get())
  {
    error_code error;
    const auto& tcp = _stream.next_layer().socket();
    _door = {tcp.local_endpoint(error), _server->tls != nullptr};
    const auto peer = tcp.remote_endpoint(error);
    if (!error)
      _peer = (peer.address().is_v6() ? "[" + peer.address().to_string() + "]" : peer.address().to_string()) + ":" +
              std::to_string(peer.port());
  }

  void start(bool crowded)
  {
    _server->enter(shared_from_this());
    const auto begin = [self = shared_from_this(), crowded]
    {
      if (!crowded)
        return self->readHeader();
      self->_last = true;
      self->answer(Page::text(503, "this host has as many connections as it takes: try again later"));
    };
    if (!_stream.secure())
      return begin();
    _stream.next_layer().expires_after(_server->options.limits.header);
    _stream.secure()->async_handshake(asio::ssl::stream_base::server,
                                      [self = shared_from_this(), begin](error_code error) { error ? self->end() : begin(); });
  }

  void shutdown() override
  {
    _last = true;
    if (!_answering)
      return end();
    if (_waiting)
      answer(Page::text(503, "the host is shutting down"));
  }

  void abort() override { end(); }

private:
  using Response = http::response<http::string_body>;

  void readHeader()
  {
    const auto& limits = _server->options.limits;
    _answering = false;
    _waiting = false;
    _parser.emplace();
    _parser->header_limit(static_cast<std::uint32_t>(limits.headerBytes));
    _parser->body_limit(limits.messageBytes);
    _stream.next_layer().expires_after(_first ? limits.header : limits.idle);
    http::async_read_header(_stream, _buffer, *_parser,
                            [self = shared_from_this()](error_code error, std::size_t)
                            { error ? self->unreadable(error) : self->onHeader(); });
  }

  void unreadable(error_code error)
  {
    // Nothing of a request came: the client has gone, or was idle too long.
    const bool nothing = !_parser->got_some();
    _last = true;
    if (error == http::error::header_limit)
      answer(Page::text(431, "the header is larger than " + std::to_string(_server->options.limits.headerBytes) + " bytes"));
    else if (error == http::error::body_limit)
      answer(Page::text(413, "the body is larger than " + std::to_string(_server->options.limits.messageBytes) + " bytes"));
    else if (error == beast::error::timeout || nothing || error == http::error::partial_message || error == asio::error::connection_reset ||
             error == asio::error::operation_aborted)
      end();
    else
      answer(Page::text(400, "the request cannot be read: " + error.message()));
  }

  void onHeader()
  {
    _first = false;
    const auto& header = _parser->get();
    // Refused before its body is read, which then ends the connection.
    const bool last = !header.keep_alive();
    _last = last || !_parser->is_done();
    if (refuse(header))
      return;
    _last = last;
    if (_parser->is_done())
      return route();
    _stream.next_layer().expires_after(_server->options.limits.send);
    if (beast::iequals(header[http::field::expect], "100-continue"))
      return asio::async_write(_stream, asio::buffer(std::string_view("HTTP/1.1 100 Continue\r\n\r\n")),
                               [self = shared_from_this()](error_code error, std::size_t) { error ? self->end() : self->readBody(); });
    readBody();
  }

  void readBody()
  {
    http::async_read(_stream, _buffer, *_parser,
                     [self = shared_from_this()](error_code error, std::size_t) { error ? self->unreadable(error) : self->route(); });
  }

  /// True when the request has its answer: a refusal, or what needs no token.
  bool refuse(const http::request_header<>& header)
  {
    const auto refused = [this](Page page)
    {
      vu::log::info("gateway", "refuse", _peer + ": " + std::to_string(page.status) + " " + page.body.substr(0, page.body.size() - 1));
      answer(std::move(page));
      return true;
    };
    const std::string_view target(header.target().data(), header.target().size());
    if (target == "/healthz")
    {
      answer(Page::text(200, "ok"));
      return true;
    }
    if (const auto foreign = findForeign(header, _door))
      return refused(Page::text(403, *foreign));
    const auto question = target.find('?');
    const auto query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
    if (header.method() == http::verb::get && query.starts_with("token="))
      return enterWithToken(std::string(target.substr(0, question)), query.substr(6));
    const auto identity = _server->options.access.identify(presentedToken(header, _door));
    if (!identity)
      return refused(Page::text(401, "a token is needed: send \"Authorization: Bearer TOKEN\", or open /?token=TOKEN in a browser"));
    // A cookie is sent for pages of other ports of this address, too.
    if ((query.starts_with("eval=") || target == "/rpc") && isCrossSite(header))
      return refused(Page::text(403, "another site's page may not use this host"));
    _client = {*identity, _peer};
    return false;
  }

  /// Trades the token in the address for a cookie.
  bool enterWithToken(const std::string& path, std::string_view token)
  {
    const auto identity = _server->options.access.identify(token);
    // A target that begins with two slashes would lead elsewhere.
    if (!identity || path.starts_with("//"))
    {
      vu::log::info("gateway", __func__, _peer + ": refused an unknown token");
      answer(Page::text(401, "this token is not known here: take the one in the file run/token of the host's root"));
      return true;
    }
    auto response = respond(Page::text(303, "welcome, " + identity->name));
    response->set(http::field::location, path);
    response->set(http::field::set_cookie,
                  cookieName(_door) + "=" + std::string(token) + "; HttpOnly; SameSite=Strict; Path=/" + (_door.secure ? "; Secure" : ""));
    send(response);
    return true;
  }

  void route()
  {
    const auto request = _parser->release();
    const std::string target(request.target());
    const auto question = target.find('?');
    const auto path = target.substr(0, question);
    const auto query = question == std::string::npos ? std::string() : target.substr(question + 1);
    if (path == "/rpc")
      return routeRpc(request);
    if (request.method() != http::verb::get)
    {
      auto response = respond(Page::text(405, "pages are read with GET; calls are sent to /rpc"));
      response->set(http::field::allow, "GET");
      return send(response);
    }
    try
    {
      routePage(percentDecode(path), query);
    }
    catch (const std::invalid_argument& error)
    {
      answer(Page::text(400, error.what()));
    }
  }

  void routeRpc(const Request& request)
  {
    if (request.method() == http::verb::get && beast::websocket::is_upgrade(request))
    {
      _stream.next_layer().expires_never();
      serveWebSocket(_server, _io, std::move(_stream), _client, request);
      return leave();
    }
    if (request.method() != http::verb::post)
    {
      auto response =
          respond(Page::text(request.method() == http::verb::get ? 426 : 405, "send a JSON-RPC message with POST, or open a WebSocket"));
      response->set(http::field::allow, "GET, POST");
      if (request.method() == http::verb::get)
        response->set(http::field::upgrade, "websocket");
      return send(response);
    }
    const auto turn = await();
    _server->dispatcher->handle(JsonRpc::parse(request.body()), _client, _openCalls, {},
                                [io = _io, self = weak_from_this(), turn](std::string text)
                                {
                                  Page page{text.empty() ? 204u : 200u, "application/json", std::move(text)};
                                  asio::post(*io, [self, turn, page = std::move(page)]() mutable { finish(self, turn, std::move(page)); });
                                });
  }

  void routePage(const std::string& path, const std::string& query)
  {
    if (path == "/")
      return onPool([](ZB::ZBBroker& broker, const Client&) { return Pages::index(broker); });
    const auto slash = path.find('/', 1);
    const auto module = path.substr(1, slash == std::string::npos ? slash : slash - 1);
    if (slash != std::string::npos && slash + 1 != path.size())
      return answer(Page::text(404, "there is no page " + path));
    if (!_server->broker->session()->find(module))
      return answer(Page::text(404, "there is no module " + module));
    if (slash == std::string::npos && query.empty())
    {
      auto response = respond(Page::text(302, "the page is at " + path + "/"));
      response->set(http::field::location, path + "/"); // a service's name: nothing to be encoded
      return send(response);
    }
    if (!query.starts_with("eval="))
      return onPool([module](ZB::ZBBroker& broker, const Client&) { return Pages::module(broker, module); });
    onPool([expression = percentDecode(query.substr(5))](ZB::ZBBroker& broker, const Client& client)
           { return Pages::evaluate(broker, expression, client); });
  }

  void onPool(std::function<Page(ZB::ZBBroker&, const Client&)> make)
  {
    const auto turn = await();
    const vu::CallerScope caller(_client.identity.name);
    try
    {
      _server->broker->pool()->postCall(
          [io = _io, self = weak_from_this(), turn, broker = _server->broker, stopped = _server->stopped, client = _client,
           make = std::move(make)]
          {
            if (*stopped)
              return;
            auto page = make(*broker, client);
            asio::post(*io, [self, turn, page = std::move(page)]() mutable { finish(self, turn, std::move(page)); });
          });
    }
    catch (const vu::ServiceError& error)
    {
      answer(Page::text(503, error.description()));
    }
  }

  /// From here until the answer the client may take its time, but is looked
  /// after: when it hangs up, its call is abandoned. Gives the answer's number.
  std::uint64_t await()
  {
    _answering = _waiting = true;
    _stream.next_layer().expires_never();
    const auto turn = ++_turn;
    watch(turn);
    return turn;
  }

  void watch(std::uint64_t turn)
  {
    _stream.next_layer().socket().async_wait(asio::ip::tcp::socket::wait_read,
                                             [weak = weak_from_this(), turn](error_code error)
                                             {
                                               if (const auto self = weak.lock(); self && !error && self->_waiting && self->_turn == turn)
                                                 self->onReadable(turn);
                                             });
  }

  void onReadable(std::uint64_t turn)
  {
    char byte = 0;
    const auto received = ::recv(_stream.next_layer().socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (received == 0)
      end();
    else if (received < 0 && (errno == EAGAIN || errno == EINTR))
      watch(turn); // an event from before
    // Else a next request is there already, or something of TLS: then a
    // hang-up shows when the answer is sent.
  }

  /// The answer that came late is dropped when the client has been answered
  /// otherwise or has gone.
  static void finish(const std::weak_ptr<HttpConnection>& connection, std::uint64_t turn, Page page)
  {
    const auto self = connection.lock();
    if (self && self->_waiting && self->_turn == turn)
      self->answer(std::move(page));
  }

  std::shared_ptr<Response> respond(Page page) const
  {
    auto response = std::make_shared<Response>(static_cast<http::status>(page.status), 11);
    response->set(http::field::content_type, page.type);
    response->set(http::field::cache_control, "no-store");
    response->set("X-Content-Type-Options", "nosniff");
    response->set("X-Frame-Options", "DENY");
    response->set("Referrer-Policy", "no-referrer");
    if (page.status == 401)
      response->set(http::field::www_authenticate, "Bearer realm=\"tarvik\"");
    response->body() = std::move(page.body);
    return response;
  }

  void answer(Page page) { send(respond(std::move(page))); }

  void send(const std::shared_ptr<Response>& response)
  {
    if (_ended)
      return;
    _answering = true;
    _waiting = false;
    response->keep_alive(!_last);
    if (response->result() == http::status::no_content)
      response->erase(http::field::content_type);
    else
      response->prepare_payload();
    _stream.next_layer().expires_after(_server->options.limits.send);
    http::async_write(_stream, *response,
                      [self = shared_from_this(), response](error_code error, std::size_t)
                      {
                        if (error)
                          return self->end();
                        if (!self->_last)
                          return self->readHeader();
                        self->hangUp();
                      });
  }

  /// Closing with something unread would reset the connection, and the client
  /// might lose the answer: so what still comes is read away for a while.
  void hangUp()
  {
    error_code ignored;
    if (_stream.secure())
      return _stream.secure()->async_shutdown([self = shared_from_this()](error_code) { self->end(); });
    _stream.next_layer().expires_after(_server->options.limits.close);
    _stream.next_layer().socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    readAway();
  }

  void readAway()
  {
    _stream.async_read_some(asio::buffer(_waste),
                            [self = shared_from_this()](error_code error, std::size_t) { error ? self->end() : self->readAway(); });
  }

  void end()
  {
    if (_ended)
      return;
    error_code ignored;
    _stream.next_layer().expires_never();
    _stream.next_layer().socket().close(ignored);
    leave();
  }

  void leave()
  {
    _ended = true;
    _waiting = false;
    _server->leave(this);
  }

  const IoContext _io; // destroyed last
  const std::shared_ptr<Server> _server;
  Stream _stream;
  Door _door;
  std::string _peer;
  Client _client;
  beast::flat_buffer _buffer;
  std::optional<http::request_parser<http::string_body>> _parser;
  const std::shared_ptr<Dispatcher::OpenCalls> _openCalls = Dispatcher::makeOpenCalls();
  std::array<char, 4096> _waste{};
  std::uint64_t _turn = 0;
  bool _first = true;
  bool _last = false;      ///< the connection ends with the next answer
  bool _answering = false; ///< a request has been read and not been answered
  bool _waiting = false;   ///< its answer is being worked out
  bool _ended = false;
};

} // namespace

void serveHttp(std::shared_ptr<Server> server, IoContext io, asio::ip::tcp::socket socket, bool crowded)
{
  std::make_shared<HttpConnection>(std::move(server), std::move(io), std::move(socket))->start(crowded);
}

} // namespace Tarvik
