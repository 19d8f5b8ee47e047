#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vu/connectionoptions.hpp>
#include <vu/object.hpp>

namespace vu
{

/// A host's service directory, reached over a WebSocket (docs/protocol.md).
/// Its objects work like those of the host's own process: calls, signals,
/// descriptions. Notifications run in the order in which the host emitted
/// them. When the connection ends, every open call fails with a ServiceError
/// of kind ConnectionLost. Thread-safe.
class RemoteSession
{
public:
  using Options = ConnectionOptions;

  /// Connects; throws a ServiceError of kind ConnectionLost that names the
  /// address when there is no host, NotAllowed when it refuses the token,
  /// InvalidArguments when the URL is none.
  explicit RemoteSession(const Options& options);
  /// Disconnects. Not to be destroyed inside one of its own callbacks.
  ~RemoteSession();
  RemoteSession(const RemoteSession&) = delete;
  RemoteSession& operator=(const RemoteSession&) = delete;

  /// Names of the services, sorted.
  std::vector<std::string> services();

  /// The service of that name, as LocalSession::service() gives it, but for
  /// one thing: without a time to wait, the host is not asked whether there is
  /// such a service. A call then costs one round trip, and it is its answer
  /// that tells of a service, or a method, that is not there.
  Future<Object> service(const std::string& name, const std::string& protocol = {}, int timeoutMs = 0);

  /// A raw JSON-RPC call, for the session's own methods too.
  Future<Value> call(const std::string& method, const Value& params);

  /// Subscribes to a memory event, "*" for every key. The callback runs on the
  /// session's own pool, in one line with the notification callback.
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
