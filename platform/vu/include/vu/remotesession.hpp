#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <vu/session.hpp>

namespace vu
{

/// A host's service directory, reached over a WebSocket (docs/protocol.md).
/// Its objects work like those of the host's own process: calls, signals,
/// descriptions. Notifications run in the order in which the host emitted
/// them. When the connection ends, every open call fails with a ServiceError
/// of kind ConnectionLost. Thread-safe.
class RemoteSession final : public Session
{
public:
  struct Options
  {
    std::string url;                          ///< "http://127.0.0.1:7110" or "https://…"
    std::string token;                        ///< sent as bearer token
    std::chrono::milliseconds timeout{10000}; ///< for connecting
    /// Certificate of the authority to trust for https, a PEM file; empty: the system's.
    std::string certificateAuthority;
    /// Without a sign of life of the host, which is pinged, the session ends.
    std::chrono::milliseconds idle{60000};
  };

  /// Connects; throws a ServiceError of kind ConnectionLost that names the
  /// address when there is no host, NotAllowed when it refuses the token,
  /// InvalidArguments when the URL is none.
  explicit RemoteSession(Options options);
  /// Disconnects. Not to be destroyed inside one of its own callbacks.
  ~RemoteSession() override;

  std::vector<std::string> services() override;
  Future<Object> service(const std::string& name, const std::string& protocol = {}, int timeoutMs = 0) override;

  /// A raw JSON-RPC call, for the session's own methods too.
  Future<Value> call(const std::string& method, const Value& params);

  /// Subscribes to a memory event, "*" for every key; the callback is queued
  /// in one line with those of subscribeAll().
  Future<SignalLink> subscribe(const std::string& key, std::function<void(const std::string& key, const Value& value)> callback);

  /// Every notification as it comes: method ("signal" or "event") and params.
  /// Replaces the previous one. Runs on the session's own pool, in order.
  void setNotificationCallback(std::function<void(const std::string& method, const Value& params)> callback);

  /// Runs once when the connection has ended, with the reason.
  void setClosedCallback(std::function<void(const std::string& reason)> callback);
  bool isConnected() const;

private:
  struct Implementation;
  std::shared_ptr<Implementation> _implementation;
};

} // namespace vu
