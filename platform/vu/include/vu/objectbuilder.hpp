#pragma once

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include <vu/localobject.hpp>

namespace vu
{

/// Makes a service object out of member functions and signals. Used from one
/// thread, while the instance is being constructed.
class ObjectBuilder
{
public:
  ObjectBuilder(std::string name, std::shared_ptr<ThreadPool> pool);

  void setDescription(std::string description);

  /// `description` gives the texts; the types are taken from `member`.
  /// Parameters left undescribed get empty names. Throws std::logic_error
  /// when the name is taken or more parameters are described than there are.
  template <typename C, typename R, typename... Arguments>
  void advertiseMethod(MethodDescription description, C* instance, R (C::*member)(Arguments...))
  {
    xAdvertise<R, Arguments...>(std::move(description),
                                [instance, member](Arguments... arguments) -> R
                                { return (instance->*member)(std::forward<Arguments>(arguments)...); });
  }
  template <typename C, typename R, typename... Arguments>
  void advertiseMethod(MethodDescription description, const C* instance, R (C::*member)(Arguments...) const)
  {
    xAdvertise<R, Arguments...>(std::move(description),
                                [instance, member](Arguments... arguments) -> R
                                { return (instance->*member)(std::forward<Arguments>(arguments)...); });
  }

  void advertiseSignal(const std::string& name, SignalBase& signal);

  const std::shared_ptr<LocalObject>& object() const { return _object; }

private:
  template <typename R, typename... Arguments, typename F> void xAdvertise(MethodDescription description, F function)
  {
    description.future = detail::IsFuture<R>::value;
    xAdd(std::move(description), {typeName<Arguments>()...}, typeName<R>(),
         [function, pool = _object->_pool](const Value& values) -> std::variant<Value, Future<Value>>
         { return xInvoke<R, Arguments...>(function, values, pool, std::index_sequence_for<Arguments...>()); });
  }

  template <typename R, typename... Arguments, typename F, std::size_t... index>
  static std::variant<Value, Future<Value>> xInvoke(const F& function, const Value& values, const std::shared_ptr<ThreadPool>& pool,
                                                    std::index_sequence<index...>)
  {
    // All conversions come before the call, so that their errors cannot be
    // taken for the method's own.
    std::tuple<std::remove_cvref_t<Arguments>...> arguments{xArgument<Arguments>(values, index)...};
    if constexpr (std::is_void_v<R>)
    {
      function(std::get<index>(arguments)...);
      return Value();
    }
    else if constexpr (detail::IsFuture<R>::value)
    {
      const Promise<Value> promise(pool);
      if constexpr (std::is_void_v<typename detail::IsFuture<R>::Result>)
        function(std::get<index>(arguments)...).forward(promise, [] { return Value(); });
      else
        function(std::get<index>(arguments)...).forward(promise, [](const auto& result) { return Value(result); });
      return promise.future();
    }
    else
      return Value(function(std::get<index>(arguments)...));
  }

  template <typename T> static std::remove_cvref_t<T> xArgument(const Value& values, std::size_t index)
  {
    try
    {
      return fromValue<T>(values[index]);
    }
    catch (const ConversionError& error)
    {
      throw LocalObject::ArgumentError("argument " + std::to_string(index + 1) + ": " + error.what());
    }
  }

  void xAdd(MethodDescription description, std::vector<std::string> types, const std::string& returnType, LocalObject::Invoke invoke);

  std::shared_ptr<LocalObject> _object;
};

} // namespace vu
