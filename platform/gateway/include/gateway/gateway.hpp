#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gateway/access.hpp>
#include <gateway/metricstext.hpp>
#include <zb/zbbroker.hpp>

namespace Tarvik
{

/// Bounds of what one client may ask of a gateway. Whoever passes one gets an
/// answer that says so, or a closed connection with the reason.
struct GatewayLimits
{
  std::size_t connections = 1024;
  std::size_t connectionsPerPeer = 512;  ///< from one address
  std::size_t connectionsPerToken = 256; ///< that one token has let in
  /// Of those in all and from one address, a quarter at most, kept for admins.
  std::size_t connectionsForAdmins = 16;
  /// That have not shown a token, and count among no others.
  std::size_t connectionsWithoutToken = 128;
  std::size_t headerBytes = 16 << 10;
  std::size_t messageBytes = 4 << 20;       ///< of a request's body or a WebSocket message
  std::size_t uploadBytes = 256 << 20;      ///< of a file sent to "POST /packages"
  std::size_t openCalls = 1000;             ///< per connection
  std::size_t runningCalls = 8;             ///< per connection, that occupy or wait for a thread
  std::size_t unsentBytes = 8 << 20;        ///< of answers, before no further call of the connection begins
  std::size_t unsentBytesInAll = 256 << 20; ///< of answers, signals and events of all connections
  std::size_t links = 1000;                 ///< signals and subscriptions per WebSocket
  std::size_t queuedMessages = 10000;       ///< that wait to be sent to one WebSocket
  std::size_t queuedBytes = 64 << 20;       ///< the same in bytes
  std::chrono::milliseconds header{10000};  ///< for a request's header to come whole
  std::chrono::milliseconds body{30000};    ///< for its body, or the next 128 KiB of a file
  std::chrono::milliseconds idle{60000};    ///< between two requests, and without a sign of life of a WebSocket
  std::chrono::milliseconds send{30000};    ///< for an answer over HTTP to be taken
  std::chrono::milliseconds close{2000};    ///< for a goodbye
};

/// The door of a broker: JSON-RPC over HTTP and WebSocket, the modules' pages
/// and "?eval=" (docs/protocol.md). When a token is removed from `access`, the connections
/// it let in end.
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
    std::shared_ptr<Access> access = std::make_shared<Access>();
    std::string tlsCertificate; ///< PEM file with the chain; empty: no TLS
    std::string tlsKey;         ///< PEM file
    /// Told the certificate that is served from now on, as PEM text: by
    /// listen(), and later on the broker's pool, when its file has changed.
    std::function<void(const std::string& pem)> certificateTaken;
    /// Allows to listen without TLS where others can listen in.
    bool insecure = false;
    GatewayLimits limits;
    /// Takes a file that an admin, `sender`, has sent to "POST /packages", and
    /// gives what the answer tells. On the broker's pool; the file goes
    /// afterwards. What it throws is the answer, a ServiceError by its kind.
    /// Empty: no files are taken.
    std::function<vu::Value(ZB::ZBBroker& broker, const std::filesystem::path& file, const std::string& sender)> upload;
    /// What "GET /metrics" tells besides the gateway's own figures. On the
    /// broker's pool; what one throws is logged, and its part left out.
    std::vector<std::function<void(ZB::ZBBroker& broker, MetricsText& text)>> collectors;
    /// Where these files are kept, named "upload-...". What is left of an
    /// earlier run is removed by listen().
    std::filesystem::path uploadDirectory;
  };

  explicit Gateway(Options options);
  /// Stops.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  /// Takes the port and tells the address, "http://127.0.0.1:7110", which for
  /// a listener on every address is this machine's own, and with TLS has a name
  /// that the certificate is good for, where there is one. Clients
  /// may connect from then on and wait for start(). Throws std::runtime_error
  /// that names the address, or the file, and the reason.
  std::string listen();

  /// Begins to answer for `broker`; after listen(), once.
  void start(std::shared_ptr<ZB::ZBBroker> broker);

  /// Runs `task`, which is brief, on the gateway's thread: never, should that
  /// hang. From start() to stop().
  void post(std::function<void()> task);

  /// Begins what stop() does, and returns at once: what completes from then on
  /// is not told to clients any more.
  void beginStopping();

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
