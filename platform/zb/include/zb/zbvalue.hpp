#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <vu/conversion.hpp>
#include <vu/value.hpp>

namespace ZB
{

// Declared before the class, whose own members make the compiler ask for them.
class ZBValue;
void to_json(vu::Value& json, const ZBValue& value);
void from_json(const vu::Value& json, ZBValue& value);

/// A value of any type. A copy is a value of its own; an element taken with
/// operator[] refers into the array it was taken from and keeps it alive, so
/// that the reference from a conversion to std::string& stays good as long as
/// array or element lives; arrayPush() on the array ends its elements and such
/// references. Not thread-safe.
///
/// A conversion that does not fit throws vu::ConversionError.
class ZBValue
{
public:
  /// null
  ZBValue();
  ZBValue(vu::Value value);
  ZBValue(const ZBValue& other);
  ZBValue(ZBValue&& other) noexcept = default;
  ZBValue& operator=(const ZBValue& other);
  ZBValue& operator=(ZBValue&& other) noexcept = default;

  template <typename T>
    requires(!std::is_base_of_v<ZBValue, std::remove_cvref_t<T>> && !std::is_same_v<std::remove_cvref_t<T>, vu::Value>)
  ZBValue(const T& value) : ZBValue(vu::Value(value)) {}

  /// Appends to an array; null becomes an array first.
  void arrayPush(const ZBValue& element);
  /// Elements of an array; 0 for everything else.
  int getSize() const;
  /// Throws std::out_of_range, naming index and size.
  ZBValue operator[](int index) const;

  explicit operator bool() const { return to<bool>(); }
  explicit operator int() const { return to<int>(); }
  explicit operator float() const { return to<float>(); }
  explicit operator double() const { return to<double>(); }
  explicit operator std::string&();
  explicit operator const std::string&() const;
  template <typename T> T to() const { return vu::fromValue<T>(*_value); }

  const vu::Value& value() const { return *_value; }
  friend bool operator==(const ZBValue& left, const ZBValue& right) { return *left._value == *right._value; }

private:
  explicit ZBValue(std::shared_ptr<vu::Value> element) : _value(std::move(element)) {}

  std::shared_ptr<vu::Value> _value;
};

} // namespace ZB
