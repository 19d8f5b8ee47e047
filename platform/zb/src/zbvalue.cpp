#include <zb/zbvalue.hpp>

#include <stdexcept>
#include <utility>

namespace ZB
{

ZBValue::ZBValue() : ZBValue(vu::Value()) {}

ZBValue::ZBValue(vu::Value value) : _value(std::make_shared<vu::Value>(std::move(value))) {}

ZBValue::ZBValue(const ZBValue& other) : ZBValue(*other._value) {}

ZBValue& ZBValue::operator=(const ZBValue& other)
{
  *this = ZBValue(other);
  return *this;
}

void ZBValue::arrayPush(const ZBValue& element)
{
  if (!_value->is_null() && !_value->is_array())
    throw vu::ConversionError(std::string("expected an array to append to, found ") + _value->type_name());
  _value->push_back(*element._value);
}

int ZBValue::getSize() const { return _value->is_array() ? static_cast<int>(_value->size()) : 0; }

ZBValue ZBValue::operator[](int index) const
{
  if (index < 0 || index >= getSize())
    throw std::out_of_range("index " + std::to_string(index) + " is out of range: the value has " + std::to_string(getSize()) +
                            " elements");
  return ZBValue(std::shared_ptr<vu::Value>(_value, &(*_value)[static_cast<std::size_t>(index)]));
}

ZBValue::operator std::string&()
{
  vu::fromValue<std::string>(*_value); // for its error
  return _value->get_ref<std::string&>();
}

ZBValue::operator const std::string&() const
{
  vu::fromValue<std::string>(*_value);
  return std::as_const(*_value).get_ref<const std::string&>();
}

void to_json(vu::Value& json, const ZBValue& value) { json = value.value(); }

void from_json(const vu::Value& json, ZBValue& value) { value = ZBValue(json); }

} // namespace ZB
