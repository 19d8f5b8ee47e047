#pragma once

#include <memory>
#include <string>

#include <vu/description.hpp>
#include <vu/future.hpp>
#include <vu/signal.hpp>

namespace vu
{

/// A service as a handle sees it, in this process or behind a connection.
/// Implemented by LocalObject and by the remote session. Thread-safe.
class ObjectBackend
{
public:
  ObjectBackend() = default;
  virtual ~ObjectBackend() = default;
  ObjectBackend(const ObjectBackend&) = delete;
  ObjectBackend& operator=(const ObjectBackend&) = delete;

  virtual const std::string& name() const = 0;
  /// Blocks and may fail for a remote service, which is asked.
  virtual ObjectDescription description() = 0;

  /// Carries the call out, for a service of this process on the caller's own
  /// thread. Errors are in the future.
  virtual Future<Value> call(const std::string& method, const Value& arguments) = 0;

  /// The same without blocking; throws a ServiceError of kind Overloaded when
  /// there is no room.
  virtual Future<Value> post(const std::string& method, Value arguments) = 0;

  /// `callback` runs inside the emission (on the connection's thread for a
  /// remote service) and must be brief. An unknown signal is a ServiceError.
  virtual Future<SignalLink> connect(const std::string& signal, SignalBase::ValuesCallback callback) = 0;
  virtual void disconnect(SignalLink link) = 0;

  /// Where continuations and queued deliveries run.
  virtual const std::shared_ptr<ThreadPool>& pool() const = 0;
};

} // namespace vu
