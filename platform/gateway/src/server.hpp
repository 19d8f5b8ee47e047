#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <gateway/gateway.hpp>
#include <network/stream.hpp>

#include "admission.hpp"
#include "certificate.hpp"
#include "dispatcher.hpp"
#include "metrics.hpp"
#include "refusallog.hpp"

namespace Tarvik
{

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using network::Stream;

/// One client's connection. Everything happens on the gateway's thread.
class Connection
{
public:
  using Clock = std::chrono::steady_clock;

  explicit Connection(std::string peer) : _peer(std::move(peer)) {}
  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// The client's address, without the port.
  const std::string& peer() const { return _peer; }

  /// Says goodbye and ends soon.
  virtual void shutdown() = 0;
  /// Ends at once.
  virtual void abort() = 0;
  /// Ends, with the reason, when it was let in by the token of that number.
  virtual void revoke(std::uint64_t identity, const std::string& reason) = 0;

  /// Since when nobody has wanted anything of it; none while somebody does.
  virtual std::optional<Clock::time_point> idleSince() const = 0;
  /// A WebSocket is somebody's session; a connection for requests is opened
  /// again unnoticed.
  virtual bool isWebSocket() const = 0;
  /// Ends for the sake of another; idle ones only.
  virtual void makeRoom() = 0;
  /// Ends already, and counts no more.
  virtual bool isEnding() const = 0;

  /// Whose it is; its number is 0 until a token was shown.
  virtual const Identity& identity() const = 0;
  Clock::time_point began() const { return _began; }

private:
  const std::string _peer;
  const Clock::time_point _began = Clock::now();
};

/// What all connections of a gateway share; it lives as long as any of them.
/// Touched by the gateway's thread alone, but for `stopped` and `metrics`.
struct Server
{
  Gateway::Options options;
  std::shared_ptr<Sessions> sessions;
  std::shared_ptr<Certificate> certificate; ///< null: no TLS
  std::shared_ptr<ZB::ZBBroker> broker;
  /// Of all that comes over a wire.
  std::shared_ptr<const ZB::CallGate> calls;
  std::optional<Dispatcher> dispatcher;
  /// Set before the broker may end: what still waits on its pool does nothing.
  std::shared_ptr<std::atomic<bool>> stopped = std::make_shared<std::atomic<bool>>(false);
  /// Keeps them alive, also while one only waits for a service's answer.
  std::map<Connection*, std::shared_ptr<Connection>> connections;
  std::function<void()> connectionEnded;
  std::shared_ptr<Backlog> backlog; ///< of all connections, once the gateway has begun
  std::shared_ptr<RefusalLog> refusals;
  const std::shared_ptr<Metrics> metrics = std::make_shared<Metrics>();

  void enter(const std::shared_ptr<Connection>& connection)
  {
    connections.emplace(connection.get(), connection);
    metrics->connectionEntered(connection->isWebSocket());
  }
  void leave(Connection* connection)
  {
    if (connections.erase(connection) == 0)
      return;
    metrics->connectionLeft(connection->isWebSocket());
    if (connectionEnded)
      connectionEnded();
  }

  enum class Room
  {
    Free,
    None,   ///< the client is to be told so
    NotEven ///< to tell it so
  };
  /// Whether one more connection, of which nothing is known, may come in.
  /// Those without a token make room for each other: the first of the address
  /// that has most of them. `descriptor`, its number, tells how many files this
  /// process has open, since it is the lowest free one: the last are for work.
  Room findRoom(int descriptor) const;
  /// Whether a connection has a place now that its client has said to be
  /// `identity`; else why not. Where a bound is reached, the one among those
  /// it counts that has been idle longest makes room: a WebSocket only when
  /// there is nothing else, and an admin's last.
  std::optional<std::string> findPlace(const Connection& connection, const Identity& identity) const;
  /// When the system has no room: whoever has no token, or is idle. False
  /// when there is nobody.
  bool endOne() const;

  /// Calls a member function of each connection; they may leave meanwhile.
  template <typename... Parameters, typename... Arguments>
  void each(void (Connection::*action)(Parameters...), const Arguments&... arguments) const
  {
    const auto present = connections;
    for (const auto& [key, connection] : present)
      ((*connection).*action)(arguments...);
  }
};

/// Whatever outlives a connection posts to the sockets' thread through this,
/// which keeps the context, and reaches the connection weakly.
using IoContext = std::shared_ptr<boost::asio::io_context>;

/// Begins to read requests from a connection just accepted; one for which there
/// is no room is closed.
void serveHttp(std::shared_ptr<Server> server, IoContext io, boost::asio::ip::tcp::socket socket);

/// Takes over a connection whose `request` asks for a WebSocket.
void serveWebSocket(std::shared_ptr<Server> server, IoContext io, Stream stream, Client client, const std::string& peer,
                    const Request& request);

} // namespace Tarvik
