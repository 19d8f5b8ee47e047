#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gateway/gateway.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>

namespace Tarvik
{

/// The platform in one process: a root, the modules that work on it, and the
/// gateway that lets clients in. Use it from one thread, which is none of the
/// broker's pool.
class Host
{
public:
  struct Options
  {
    std::filesystem::path root; ///< empty: see resolveRoot()
    std::string listen = "127.0.0.1:7110";
    std::vector<std::filesystem::path> systemPackages;
    /// Module libraries besides the platform's own, loaded after them.
    std::vector<std::filesystem::path> modules;
    /// Where the platform's own modules are; empty: beside the executable.
    std::filesystem::path moduleDirectory;
    std::string tlsCertificate;
    std::string tlsKey;
    bool insecure = false;
    GatewayLimits limits;
    /// Settings of the frame manager, which checks them.
    vu::Value frameManager = vu::Value::object();
    /// What a package may unpack to, in all and in number of entries.
    std::size_t packageBytes = std::size_t(1) << 30;
    std::size_t packageEntries = 100000;
    std::size_t runs = 10000; ///< that the history keeps
  };

  explicit Host(Options options);
  /// Stops.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  /// Takes the root, loads the modules, lets clients in and raises the
  /// micro-event "TarvikReady" with 1. Throws std::runtime_error, or what a
  /// module's constructor throws, and leaves nothing behind then.
  void start();

  /// Calls `done`, on some thread, when the gateway's thread, the broker's pool
  /// and the threads that behaviors play on have each got something done, one
  /// after the other. Of the started host.
  void probe(std::function<void()> done) const;

  /// Sends the clients away, stops all behaviors, ends the modules in reverse
  /// order, and gives the root free. Waits for calls under way. A second call
  /// does nothing.
  void stop();

  /// What stop() may take with these settings; far more than it does.
  std::chrono::microseconds stopLimit() const;

  /// Of the started host, "http://127.0.0.1:7110".
  const std::string& url() const;
  const std::filesystem::path& root() const;
  /// Of the started host.
  const std::shared_ptr<ZB::ZBBroker>& broker() const;

private:
  void loadModules();

  struct Running;
  Options _options;
  std::unique_ptr<Running> _running;
};

} // namespace Tarvik
