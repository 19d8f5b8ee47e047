#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <vu/conversion.hpp>
#include <vu/error.hpp>
#include <vu/objectbackend.hpp>

namespace vu
{

/// Handle on a service object, here or remote. Copies share one line: all
/// callbacks connected through them run on the pool, in the order of emission,
/// one at a time, and never on the emitter's thread. Connections live on when
/// the handle dies; they end with disconnect() or with the service.
///
/// Calls through an empty handle throw std::runtime_error "This object is
/// null". Every other failure of a call is a ServiceError, or in one process
/// the exception that the method threw. Thread-safe.
class Object
{
public:
  Object() = default;
  explicit Object(std::shared_ptr<ObjectBackend> backend);

  explicit operator bool() const noexcept { return _shared != nullptr; }
  const std::string& name() const;
  ObjectDescription description() const;

  /// Calls and waits. A service of this process runs on the caller's thread;
  /// a method that gives a future is waited for.
  template <typename R, typename... Arguments> R call(const std::string& method, const Arguments&... arguments) const
  {
    const auto result = callValues(method, Value::array({Value(arguments)...}));
    if constexpr (std::is_void_v<R>)
      result.value();
    else
      return xConvert<R>(method, result.value());
  }

  /// Posts the call: it runs on the pool. A method that gives a future holds
  /// no thread while that is open. Throws when there is no room for it.
  template <typename R, typename... Arguments> Future<R> async(const std::string& method, const Arguments&... arguments) const
  {
    const auto result = asyncValues(method, Value::array({Value(arguments)...}));
    const Promise<R> promise(backend()->pool());
    if constexpr (std::is_void_v<R>)
      result.forward(promise, [](const Value&) {});
    else
      result.forward(promise, [self = *this, method](const Value& value) { return self.xConvert<R>(method, value); });
    return promise.future();
  }

  /// The same with an array of arguments. The future of a local call() is open
  /// only where the method gives a future.
  Future<Value> callValues(const std::string& method, const Value& arguments) const;
  Future<Value> asyncValues(const std::string& method, Value arguments) const;

  /// Connects; `callback` is queued in this handle's line for every emission.
  template <typename... Arguments>
  Future<SignalLink> connect(const std::string& signal, std::type_identity_t<std::function<void(Arguments...)>> callback) const
  {
    return connectValues(signal, [callback = std::move(callback)](const Value& values)
                         { xApply<Arguments...>(callback, values, std::index_sequence_for<Arguments...>()); });
  }
  Future<SignalLink> connectValues(const std::string& signal, SignalBase::ValuesCallback callback) const;

  /// Once it has returned, the callback does not run any more, nor do
  /// deliveries that still stood in the line. See SignalBase::disconnect().
  void disconnect(SignalLink link) const;

  /// Completes when every delivery that stands in this handle's line now has run.
  Future<void> delivered() const;

  /// The service itself; throws like a call for an empty handle.
  const std::shared_ptr<ObjectBackend>& backend() const;

private:
  template <typename R> R xConvert(const std::string& method, const Value& value) const
  {
    try
    {
      return fromValue<R>(value);
    }
    catch (const ConversionError& error)
    {
      throw ServiceError(name(), method, std::string("the result does not fit: ") + error.what());
    }
  }

  template <typename... Arguments, std::size_t... index>
  static void xApply(const std::function<void(Arguments...)>& callback, const Value& values, std::index_sequence<index...>)
  {
    callback(fromValue<Arguments>(values.at(index))...);
  }

  struct Shared;
  std::shared_ptr<Shared> _shared;
};

} // namespace vu
