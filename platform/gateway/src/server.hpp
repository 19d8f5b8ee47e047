#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <gateway/gateway.hpp>

#include "dispatcher.hpp"
#include "requestguard.hpp"
#include "stream.hpp"

namespace Tarvik
{

using Request = boost::beast::http::request<boost::beast::http::string_body>;

/// One client's connection. Everything happens on the gateway's thread.
class Connection
{
public:
  Connection() = default;
  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Says goodbye and ends soon.
  virtual void shutdown() = 0;
  /// Ends at once.
  virtual void abort() = 0;
};

/// What all connections of a gateway share; it lives as long as any of them.
/// Touched by the gateway's thread alone, but for `stopped`.
struct Server
{
  Gateway::Options options;
  std::unique_ptr<boost::asio::ssl::context> tls;
  std::shared_ptr<ZB::ZBBroker> broker;
  std::optional<Dispatcher> dispatcher;
  /// Set before the broker may end: what still waits on its pool does nothing.
  std::shared_ptr<std::atomic<bool>> stopped = std::make_shared<std::atomic<bool>>(false);
  /// Keeps them alive, also while one only waits for a service's answer.
  std::map<Connection*, std::shared_ptr<Connection>> connections;
  std::function<void()> connectionEnded;

  void enter(const std::shared_ptr<Connection>& connection) { connections.emplace(connection.get(), connection); }
  void leave(Connection* connection)
  {
    if (connections.erase(connection) != 0 && connectionEnded)
      connectionEnded();
  }
};

/// Whatever outlives a connection posts to the sockets' thread through this,
/// which keeps the context, and reaches the connection weakly.
using IoContext = std::shared_ptr<boost::asio::io_context>;

/// Begins to read requests from a connection just accepted. One that is
/// `crowded` out is told so and closed.
void serveHttp(std::shared_ptr<Server> server, IoContext io, boost::asio::ip::tcp::socket socket, bool crowded);

/// Takes over a connection whose `request` asks for a WebSocket.
void serveWebSocket(std::shared_ptr<Server> server, IoContext io, Stream stream, Client client, const Request& request);

} // namespace Tarvik
