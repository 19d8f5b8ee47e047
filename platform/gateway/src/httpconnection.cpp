#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include <sys/socket.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <vu/caller.hpp>
#include <vu/log.hpp>

#include "admission.hpp"
#include "callrecord.hpp"
#include "entry.hpp"
#include "framing.hpp"
#include "pages.hpp"
#include "routes.hpp"
#include "server.hpp"
#include "upload.hpp"

namespace Tarvik
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace
{

std::string addressText(const asio::ip::address& address)
{
  return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

constexpr std::chrono::milliseconds refusalPause(100);
constexpr std::size_t readAtOnce = 64 << 10;

std::string seconds(std::chrono::milliseconds time) { return std::to_string(time.count() / 1000) + " s"; }

/// Reads requests from one client and answers them, one after the other; what
/// they ask for is told by findRoute().
class HttpConnection final : public Connection, public std::enable_shared_from_this<HttpConnection>
{
public:
  HttpConnection(std::shared_ptr<Server> server, IoContext io, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer)
      : Connection(addressText(peer.address())), _io(std::move(io)), _server(std::move(server)),
        _stream(std::move(socket), _server->certificate ? _server->certificate->context() : nullptr), _deadline(*_io)
  {
    error_code ignored;
    _door = {_stream.next_layer().socket().local_endpoint(ignored), _server->certificate != nullptr};
    const auto& limits = _server->options.limits;
    _client.openCalls = std::make_shared<ZB::ConnectionCalls>(ZB::ConnectionCalls::Limits{limits.openCalls, limits.runningCalls});
    _client.address = this->peer() + ":" + std::to_string(peer.port());
  }

  void start(bool crowded)
  {
    _crowded = crowded;
    _client.unsent = _server->backlog->open([io = _io, weak = weak_from_this()] { asio::post(*io, [weak] { tooMuchUnsent(weak); }); });
    _server->enter(shared_from_this());
    const auto begin = [self = shared_from_this()]
    {
      if (!self->_crowded)
        return self->readHeader();
      self->_last = true;
      self->answer(HttpAnswer::text(503, "this host has as many connections as it takes: try again later"));
    };
    if (!_stream.isSecure())
      return begin();
    _stream.next_layer().expires_after(_server->options.limits.header);
    _stream.acceptHandshake([self = shared_from_this(), begin](error_code error) { error ? self->end() : begin(); });
  }

  void shutdown() override { endWith(HttpAnswer::text(503, "the host is shutting down")); }
  void abort() override { end(); }
  void revoke(std::uint64_t identity, const std::string& reason) override
  {
    if (_client.identity.number == identity)
      endWith(HttpAnswer::text(401, reason));
  }
  bool isWebSocket() const override { return false; }
  std::optional<Clock::time_point> idleSince() const override
  {
    return _state == State::Idle && !_crowded ? std::optional(_idleSince) : std::nullopt;
  }
  void makeRoom() override { end(); }
  bool isEnding() const override { return _crowded || _state == State::HangingUp; }
  const Identity& identity() const override { return _client.identity; }

private:
  enum class State
  {
    Idle,    ///< the next request's header has not come whole
    Body,    ///< its body has not
    Waiting, ///< its answer is being worked out
    Sending,
    HangingUp,
    Ended
  };

  /// What is being read must come within the time. Not left to the stream,
  /// which would close the socket and leave nothing to answer on.
  void expect(std::chrono::milliseconds time)
  {
    _stream.next_layer().expires_never();
    _late = false;
    _deadline.expires_after(time);
    _deadline.async_wait(
        [weak = weak_from_this()](error_code error)
        {
          const auto self = weak.lock();
          if (error || !self || self->_deadline.expiry() > Clock::now() || (self->_state != State::Idle && self->_state != State::Body))
            return;
          self->_late = true;
          self->_stream.next_layer().cancel();
        });
  }

  void next()
  {
    _state = State::Idle;
    _idleSince = Clock::now();
    if (_buffer.size() != 0)
      return readHeader();
    expect(_server->options.limits.idle);
    _stream.async_read_some(_buffer.prepare(4096),
                            [self = shared_from_this()](error_code error, std::size_t length)
                            {
                              if (error)
                                return self->end();
                              self->_buffer.commit(length);
                              self->readHeader();
                            });
  }

  void readHeader()
  {
    const auto& limits = _server->options.limits;
    _header.emplace();
    _chunkBound.reset();
    _buffer.max_size(std::max({limits.headerBytes, readAtOnce, _buffer.size()}));
    _header->header_limit(static_cast<std::uint32_t>(limits.headerBytes));
    _header->body_limit(std::numeric_limits<std::uint64_t>::max()); // bounded when it is known what the body is
    expect(limits.header);
    http::async_read_header(_stream, _buffer, *_header,
                            [self = shared_from_this()](error_code error, std::size_t)
                            {
                              if (!error)
                                return self->guarded(&HttpConnection::onHeader);
                              if (self->_header->got_some())
                                return self->unreadable(error, self->_server->options.limits.header);
                              self->end(); // nothing of a request came: the client has gone, or was idle too long
                            });
  }

  void unreadable(error_code error, std::chrono::milliseconds time)
  {
    _last = true;
    if (_state == State::Body && (error == http::error::header_limit || error == http::error::buffer_overflow))
      answer(HttpAnswer::text(400, "chunk extensions and trailers may not come to more than " +
                                       std::to_string(_server->options.limits.headerBytes) + " bytes"));
    else if (error == http::error::header_limit || error == http::error::buffer_overflow)
      answer(HttpAnswer::text(431, "the header is larger than " + std::to_string(_server->options.limits.headerBytes) + " bytes"));
    else if (error == http::error::body_limit)
      answer(tooLarge());
    else if (_late)
      answer(HttpAnswer::text(408, "the request did not come within " + seconds(time)));
    else if (error == http::error::partial_message || error == asio::error::connection_reset || error == asio::error::operation_aborted)
      end();
    else
      answer(HttpAnswer::text(400, "the request cannot be read: " + error.message()));
  }

  HttpAnswer tooLarge() const { return HttpAnswer::text(413, "the body is larger than " + std::to_string(_bodyLimit) + " bytes"); }

  /// Whatever goes wrong in here, the client does not wait for ever.
  void guarded(void (HttpConnection::*step)())
  {
    try
    {
      (this->*step)();
    }
    catch (...)
    {
      const auto page = Pages::failure(std::current_exception());
      vu::log::error("gateway", __func__, _client.address + ": " + page.body.substr(0, page.body.size() - 1));
      _last = true;
      _state == State::Sending ? end() : answer(page);
    }
  }

  void onHeader()
  {
    const auto& header = _header->get();
    _last = !header.keep_alive();
    // A browser would keep it for all that is on this machine.
    _strictTransport = _door.secure && !beast::string_view(header[http::field::host]).starts_with("localhost");
    if (const auto reason = findBadFraming(header))
    {
      _last = true;
      return refuse(HttpAnswer::text(400, *reason));
    }
    auto admitted = admit(header, _door, *_server->options.access, *_server->sessions);
    if (auto* const page = std::get_if<HttpAnswer>(&admitted))
      return page->status >= 400 ? refuse(std::move(*page)) : answerEarly(std::move(*page));
    if (std::holds_alternative<EntryForm>(admitted))
      return beginBody(Entry::longestForm, [this] { readMessage(&HttpConnection::handleForm); });
    auto& identity = std::get<Identity>(admitted);
    if (identity.number != _client.identity.number)
      if (const auto reason = _server->findPlace(*this, identity))
      {
        _server->metrics->connectionRefused();
        _last = true;
        return answer(HttpAnswer::text(503, *reason));
      }
    _client.identity = std::move(identity);
    auto route = findRoute(header, _client, *_server->broker);
    if (auto* const page = std::get_if<HttpAnswer>(&route))
      return answerEarly(std::move(*page));
    if (std::holds_alternative<MetricsRequest>(route))
      route = Work{[metrics = _server->metrics, backlog = _server->backlog, collectors = _server->options.collectors](
                       ZB::ZBBroker& broker, const Client&) { return Pages::metrics(broker, *metrics, *backlog, collectors); }};
    bool urgent = false;
    if (auto* const evaluation = std::get_if<Evaluation>(&route))
    {
      urgent = Pages::isUrgent(*_server->broker, evaluation->expression);
      route = Work{[calls = _server->calls, expression = std::move(evaluation->expression)](ZB::ZBBroker& broker, const Client& client)
                   { return Pages::evaluate(broker, *calls, expression, client); }};
    }
    if (auto* const work = std::get_if<Work>(&route))
    {
      _last = _last || !_header->is_done();
      return onPool(std::move(*work), urgent);
    }
    if (std::holds_alternative<WebSocketHandshake>(route))
    {
      _stream.next_layer().expires_never();
      _deadline.cancel();
      serveWebSocket(_server, _io, std::move(_stream), _client, peer(), Request(_header->release().base()));
      return leave();
    }
    if (std::holds_alternative<FileUpload>(route))
      return _server->options.upload ? beginBody(_server->options.limits.uploadBytes, [this] { beginUpload(); })
                                     : answerEarly(HttpAnswer::text(404, "this host takes no files"));
    beginBody(_server->options.limits.messageBytes, [this] { readMessage(&HttpConnection::handleMessage); });
  }

  /// Where an address is refused so often that the log leaves lines out, its
  /// answers take their time, too.
  void refuse(HttpAnswer page, bool isWhole = false)
  {
    if (_server->refusals->admits(peer()))
    {
      vu::log::info("gateway", "refuse", _client.address + ": " + std::to_string(page.status) + " " + page.summary());
      return isWhole ? answer(std::move(page)) : answerEarly(std::move(page));
    }
    _last = true;
    const auto turn = await();
    _deadline.expires_after(refusalPause);
    _deadline.async_wait(
        [self = weak_from_this(), turn, page = std::move(page)](error_code error) mutable
        {
          if (!error)
            finish(self, turn, std::move(page));
        });
  }

  /// An answer that does not wait for the body, which then ends the connection.
  void answerEarly(HttpAnswer page)
  {
    _last = _last || !_header->is_done();
    answer(std::move(page));
  }

  template <typename Read> void beginBody(std::size_t limit, Read read)
  {
    _bodyLimit = limit;
    if (const auto length = _header->content_length(); length && *length > limit)
      return answerEarly(tooLarge());
    _header->body_limit(limit);
    _state = State::Body;
    // What stands between the chunks and after them is no body; the parser
    // wants a chunk's line, and the trailers, whole.
    if (_header->chunked())
    {
      _chunkBound.emplace(_server->options.limits.headerBytes);
      _chunkBound->watch(*_header);
      _buffer.max_size(std::max(_server->options.limits.headerBytes, _buffer.size()));
    }
    if (_header->is_done() || !beast::iequals(_header->get()[http::field::expect], "100-continue"))
      return read();
    _stream.next_layer().expires_after(_server->options.limits.send);
    asio::async_write(_stream, asio::buffer(std::string_view("HTTP/1.1 100 Continue\r\n\r\n")),
                      [self = shared_from_this(), read](error_code error, std::size_t) { error ? self->end() : read(); });
  }

  void readMessage(void (HttpConnection::*handle)())
  {
    _message.emplace(std::move(*_header));
    if (_chunkBound)
      _chunkBound->watch(*_message);
    if (_message->is_done())
      return (this->*handle)();
    expect(_server->options.limits.body);
    http::async_read(_stream, _buffer, *_message,
                     [self = shared_from_this(), handle](error_code error, std::size_t)
                     { error ? self->unreadable(error, self->_server->options.limits.body) : self->guarded(handle); });
  }

  void handleForm()
  {
    auto page = Entry::answerForm(_message->release().body(), _door, *_server->sessions);
    page.status >= 400 ? refuse(std::move(page), true) : answer(std::move(page));
  }

  void handleMessage()
  {
    auto text = _message->release().body();
    const auto turn = await();
    const auto bytes = text.size();
    if (bytes <= JsonRpc::longMessage)
    {
      auto message = JsonRpc::parse(text);
      return dispatch(message, bytes, turn);
    }
    const auto message = std::make_shared<std::shared_ptr<JsonRpc::Message>>();
    onPool([message, text = std::move(text)] { *message = std::make_shared<JsonRpc::Message>(JsonRpc::parse(text)); },
           [message, bytes, turn](HttpConnection& self, const std::exception_ptr& failure)
           {
             if (self._state != State::Waiting || self._turn != turn)
               return;
             if (failure)
               return self.answer(Pages::failure(failure));
             self.dispatch(**message, bytes, turn);
             // Letting go of it takes as long as reading it.
             self._server->broker->pool()->post([rest = std::move(*message)] {});
           });
  }

  void dispatch(JsonRpc::Message& message, std::size_t bytes, std::uint64_t turn)
  {
    _server->dispatcher->handle(message, bytes, _client, {},
                                [io = _io, self = weak_from_this(), turn](std::string text)
                                {
                                  HttpAnswer page{text.empty() ? 204u : 200u, "application/json", std::move(text)};
                                  asio::post(*io, [self, turn, page = std::move(page)]() mutable { finish(self, turn, std::move(page)); });
                                });
  }

  static void tooMuchUnsent(const std::weak_ptr<HttpConnection>& connection)
  {
    const auto self = connection.lock();
    if (!self || self->_state == State::Ended)
      return;
    self->_server->metrics->queueDropped();
    vu::log::info("gateway", "send", self->_client.address + " is disconnected: the host has too much to send, and most to this client");
    self->end();
  }

  void beginUpload()
  {
    _upload = std::make_shared<UploadBody>(std::move(*_header), _server->options.uploadDirectory);
    if (_chunkBound)
      _upload->watch(*_chunkBound);
    storeUpload(); // makes the file
  }

  void readUpload()
  {
    expect(_server->options.limits.body);
    http::async_read(_stream, _buffer, _upload->nextChunk(),
                     [self = shared_from_this()](error_code error, std::size_t)
                     {
                       if (error && error != http::error::need_buffer)
                         return self->unreadable(error, self->_server->options.limits.body);
                       self->storeUpload();
                     });
  }

  /// On the pool, since a disk may keep one waiting.
  void storeUpload()
  {
    onPool([upload = _upload] { upload->store(); },
           [](HttpConnection& self, const std::exception_ptr& failure)
           {
             if (self._state != State::Body)
               return;
             if (!failure)
               return self._upload->isWhole() ? self.takeUpload() : self.readUpload();
             auto page = Pages::failure(failure);
             LoggedRequest(self._client, "POST /packages").ended(page.body.substr(0, page.body.size() - 1));
             self._last = true;
             self.answer(std::move(page));
           });
  }

  void takeUpload()
  {
    onPool(Work{[upload = std::move(_upload), take = _server->options.upload](ZB::ZBBroker& broker, const Client& client)
                { return Pages::upload(broker, upload->path(), client, take); }});
  }

  void onPool(Work work, bool urgent = false)
  {
    const auto turn = await();
    const auto page = std::make_shared<std::optional<HttpAnswer>>();
    onPool(
        [page, work = std::move(work), broker = _server->broker, stopped = _server->stopped, client = _client]
        {
          if (!*stopped)
            *page = work.make(*broker, client);
        },
        [page, turn](HttpConnection& self, const std::exception_ptr& failure)
        {
          // None when the gateway has stopped, which tells the client so.
          if (self._state == State::Waiting && self._turn == turn && (failure || *page))
            self.answer(failure ? Pages::failure(failure) : **page);
        },
        urgent);
  }

  /// `work` blocks and knows nothing of this connection; `then` runs back on
  /// the gateway's thread, if the connection is still there, with what the
  /// work has thrown.
  template <typename Function, typename Then> void onPool(Function work, Then then, bool urgent = false)
  {
    const vu::CallerScope caller(_client.identity.name);
    try
    {
      const auto& pool = _server->broker->pool();
      auto task = [io = _io, weak = weak_from_this(), work = std::move(work), then]
      {
        std::exception_ptr failure;
        try
        {
          work();
        }
        catch (...)
        {
          failure = std::current_exception();
        }
        asio::post(*io,
                   [weak, then, failure]
                   {
                     if (const auto self = weak.lock())
                       then(*self, failure);
                   });
      };
      urgent ? pool->postUrgent(std::move(task)) : pool->postCall(std::move(task));
    }
    catch (const vu::ServiceError&) // the pool is overloaded
    {
      then(*this, std::current_exception());
    }
  }

  /// From here until the answer the client may take its time, but is looked
  /// after: when it hangs up, its call is abandoned. Gives the answer's number.
  std::uint64_t await()
  {
    _state = State::Waiting;
    _deadline.cancel();
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
                                               if (const auto self = weak.lock();
                                                   self && !error && self->_state == State::Waiting && self->_turn == turn)
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
  static void finish(const std::weak_ptr<HttpConnection>& connection, std::uint64_t turn, HttpAnswer page)
  {
    const auto self = connection.lock();
    if (self && self->_state == State::Waiting && self->_turn == turn)
      self->answer(std::move(page));
  }

  void answer(HttpAnswer page)
  {
    if (_state == State::Ended)
      return;
    _state = State::Sending;
    _deadline.cancel();
    _server->metrics->answered(page.status);
    const auto response = std::make_shared<http::response<http::string_body>>(toResponse(std::move(page), !_last, _strictTransport));
    const auto bytes = response->body().size();
    _client.unsent->add(bytes);
    _stream.next_layer().expires_after(_server->options.limits.send);
    http::async_write(_stream, *response,
                      [self = shared_from_this(), response, bytes](error_code error, std::size_t)
                      {
                        self->_client.unsent->remove(bytes);
                        if (error == beast::error::timeout)
                          vu::log::info("gateway", "send", self->_client.address + " is disconnected: it does not take its answer");
                        if (error)
                          return self->end();
                        self->_last ? self->hangUp() : self->next();
                      });
  }

  /// The end of what is idle or half read; whoever waits for an answer gets
  /// this one, and whoever is being sent one gets it whole.
  void endWith(HttpAnswer page)
  {
    _last = true;
    if (_state == State::Idle || _state == State::Body)
      end();
    else if (_state == State::Waiting)
      answer(std::move(page));
  }

  /// Closing with something unread would reset the connection, and the client
  /// might lose the answer: so what still comes is read away for a while.
  void hangUp()
  {
    error_code ignored;
    _state = State::HangingUp;
    _stream.next_layer().expires_after(_server->options.limits.close);
    if (_stream.isSecure())
      return _stream.shutdown([self = shared_from_this()](error_code) { self->end(); });
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
    if (_state == State::Ended)
      return;
    error_code ignored;
    _deadline.cancel();
    _stream.next_layer().expires_never();
    _stream.next_layer().socket().close(ignored);
    leave();
  }

  void leave()
  {
    _state = State::Ended;
    _client.openCalls->close();
    _server->leave(this);
  }

  const IoContext _io; // destroyed last
  const std::shared_ptr<Server> _server;
  Stream _stream;
  asio::steady_timer _deadline;
  Door _door;
  Client _client;
  beast::flat_buffer _buffer;
  std::optional<http::request_parser<http::empty_body>> _header;
  std::optional<http::request_parser<http::string_body>> _message;
  std::shared_ptr<UploadBody> _upload; ///< also the pool's while it writes
  std::optional<ChunkBound> _chunkBound;
  std::size_t _bodyLimit = 0;
  std::array<char, 4096> _waste{};
  std::uint64_t _turn = 0;
  State _state = State::Idle;
  Clock::time_point _idleSince = Clock::now();
  bool _crowded = false;         ///< there is no room for it
  bool _late = false;            ///< what was expected did not come in time
  bool _strictTransport = false; ///< browsers are told to come by TLS alone
  bool _last = false;            ///< the connection ends with the next answer
};

} // namespace

void serveHttp(std::shared_ptr<Server> server, IoContext io, asio::ip::tcp::socket socket)
{
  error_code error;
  const auto peer = socket.remote_endpoint(error);
  if (error)
    return; // it has gone already
  const auto room = server->findRoom(socket.native_handle());
  if (room != Server::Room::Free)
    server->metrics->connectionRefused();
  if (room != Server::Room::NotEven)
    std::make_shared<HttpConnection>(std::move(server), std::move(io), std::move(socket), peer)->start(room == Server::Room::None);
}

} // namespace Tarvik
