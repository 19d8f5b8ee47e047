#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <gateway/access.hpp>
#include <zb/zbbroker.hpp>

namespace Tarvik
{

/// Bounds of what one client may ask of a gateway. Whoever passes one gets an
/// answer that says so, or a closed connection with the reason.
struct GatewayLimits
{
  std::size_t connections = 1024;
  std::size_t headerBytes = 16 << 10;
  std::size_t messageBytes = 4 << 20;      ///< of a request's body or a WebSocket message
  std::size_t openCalls = 1000;            ///< per connection
  std::size_t links = 1000;                ///< signals and subscriptions per WebSocket
  std::size_t queuedMessages = 10000;      ///< that wait to be sent to one WebSocket
  std::size_t queuedBytes = 64 << 20;      ///< the same in bytes
  std::chrono::milliseconds header{10000}; ///< for a request to come whole
  std::chrono::milliseconds idle{60000};   ///< between two requests, and without a sign of life of a WebSocket
  std::chrono::milliseconds send{30000};   ///< for an answer over HTTP to be taken
  std::chrono::milliseconds close{2000};   ///< for a goodbye
};

/// The door of a broker: JSON-RPC over HTTP and WebSocket, the modules' pages
/// and "?eval=" (docs/protocol.md).
///
/// It has one thread of its own for all sockets, on which nothing blocks;
/// service calls and pages run on the broker's pool. Use it from one thread.
class Gateway
{
public:
  struct Options
  {
    std::string address = "127.0.0.1"; ///< an IP address
    std::uint16_t port = 7110;         ///< 0 takes a free one
    Access access;
    std::string tlsCertificate; ///< PEM file with the chain; empty: no TLS
    std::string tlsKey;         ///< PEM file
    /// Allows to listen without TLS where others can listen in.
    bool insecure = false;
    GatewayLimits limits;
  };

  explicit Gateway(Options options);
  /// Stops.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  /// Takes the port and tells the address, "http://127.0.0.1:7110", which for
  /// a listener on every address is this machine's own. Clients
  /// may connect from then on and wait for start(). Throws std::runtime_error
  /// that names the address, or the file, and the reason.
  std::string listen();

  /// Begins to answer for `broker`; after listen(), once.
  void start(std::shared_ptr<ZB::ZBBroker> broker);

  /// Takes no more connections, says goodbye to those there are (open calls
  /// over HTTP are answered with 503) and joins the thread, within
  /// `limits.close`. No call is made afterwards; those under way end in the
  /// broker. A second call does nothing.
  void stop();

private:
  struct Implementation;
  std::unique_ptr<Implementation> _implementation;
};

} // namespace Tarvik
