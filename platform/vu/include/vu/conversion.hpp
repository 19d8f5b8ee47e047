#pragma once

#include <cstdint>
#include <list>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <vu/value.hpp>

/// Names of types, as a service's description shows them, and the strict
/// conversion of arguments.
namespace vu
{

template <typename T> class Future;

/// A value does not have the type that is wanted. The text says what is wanted
/// and what was found: "expected string, found number".
class ConversionError : public std::invalid_argument
{
public:
  using std::invalid_argument::invalid_argument;
};

namespace detail
{
template <typename T> struct IsList : std::false_type
{
};
template <typename T> struct IsList<std::vector<T>> : std::true_type
{
};
template <typename T> struct IsList<std::list<T>> : std::true_type
{
};
template <typename T> struct IsList<std::set<T>> : std::true_type
{
};

template <typename T> struct IsFuture : std::false_type
{
};
template <typename T> struct IsFuture<Future<T>> : std::true_type
{
  using Result = T;
};
} // namespace detail

/// bool, int, float, string, [string] and the like, future<...>, void; "value"
/// for every other type.
template <typename T> std::string typeName()
{
  using Plain = std::remove_cvref_t<T>;
  if constexpr (std::is_void_v<Plain>)
    return "void";
  else if constexpr (std::is_same_v<Plain, bool>)
    return "bool";
  else if constexpr (std::is_integral_v<Plain>)
    return "int";
  else if constexpr (std::is_floating_point_v<Plain>)
    return "float";
  else if constexpr (std::is_same_v<Plain, std::string>)
    return "string";
  else if constexpr (detail::IsList<Plain>::value)
    return "[" + typeName<typename Plain::value_type>() + "]";
  else if constexpr (detail::IsFuture<Plain>::value)
    return "future<" + typeName<typename detail::IsFuture<Plain>::Result>() + ">";
  else
    return "value";
}

/// `value` as a T, without guessing: a number is no string, a fraction no
/// integer, 1 no bool, and no integer is cut off. Throws ConversionError.
template <typename T> std::remove_cvref_t<T> fromValue(const Value& value)
{
  using Plain = std::remove_cvref_t<T>;
  const auto wanted = [&value](bool matches)
  {
    if (!matches)
      throw ConversionError("expected " + typeName<Plain>() + ", found " + value.type_name());
  };
  if constexpr (std::is_same_v<Plain, Value>)
    return value;
  else if constexpr (detail::IsList<Plain>::value)
  {
    wanted(value.is_array());
    Plain list;
    for (const auto& element : value)
      list.insert(list.end(), fromValue<typename Plain::value_type>(element));
    return list;
  }
  else
  {
    if constexpr (std::is_same_v<Plain, bool>)
      wanted(value.is_boolean());
    else if constexpr (std::is_integral_v<Plain>)
    {
      wanted(value.is_number_integer());
      const bool fits =
          value.is_number_unsigned() ? std::in_range<Plain>(value.get<std::uint64_t>()) : std::in_range<Plain>(value.get<std::int64_t>());
      if (!fits)
        throw ConversionError("expected int, found " + value.dump() + ", which is out of range");
    }
    else if constexpr (std::is_floating_point_v<Plain>)
      wanted(value.is_number());
    else if constexpr (std::is_same_v<Plain, std::string>)
      wanted(value.is_string());
    try
    {
      return value.get<Plain>();
    }
    catch (const Value::exception& error)
    {
      throw ConversionError("expected " + typeName<Plain>() + ", found " + value.type_name() + ": " + error.what());
    }
  }
}

} // namespace vu
