#pragma once

#include <memory>
#include <source_location>
#include <string>

#include <vu/object.hpp>
#include <zb/zberror.hpp>
#include <zb/zbvalue.hpp>

namespace ZB
{

class ZBBroker;

/// Calls a service by name. The service is looked up at every call, so that a
/// proxy may be made before its service and outlive it. Every failure of a
/// call is a ZBError. Thread-safe.
class ZBProxy
{
public:
  /// The two numbers are of no use to this framework.
  ZBProxy(std::shared_ptr<ZBBroker> broker, std::string name, int flag = 0, int keepAlive = 0);

  const std::string& name() const { return _name; }

  /// Calls on this thread and waits for the result, that of a future included.
  template <typename R = void, typename... Arguments> R call(const std::string& method, const Arguments&... arguments) const
  {
    return guarded(method, [&]() -> R { return service(method).call<R>(method, arguments...); });
  }

  /// Posts the call and returns at once with the number of its task. Throws
  /// when it cannot post; a later failure is logged as a warning.
  template <typename... Arguments> int pCall(const std::string& method, const Arguments&... arguments) const
  {
    return guarded(method, [&] { return postValues(method, vu::Value::array({vu::Value(arguments)...})); });
  }

  /// A handle of its own line; empty when there is no such service.
  operator vu::Object() const;

private:
  /// Throws a ServiceError of kind UnknownService.
  vu::Object service(const std::string& method) const;
  /// May throw anything.
  int postValues(const std::string& method, vu::Value arguments) const;

  template <typename F> auto guarded(const std::string& method, const F& function) const -> decltype(function())
  {
    try
    {
      return function();
    }
    catch (...)
    {
      rethrowAsZBError(method);
    }
  }
  [[noreturn]] void rethrowAsZBError(const std::string& method) const;

  std::shared_ptr<ZBBroker> _broker;
  std::string _name;
};

} // namespace ZB
