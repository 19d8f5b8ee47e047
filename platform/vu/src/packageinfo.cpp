#include <vu/packageinfo.hpp>

#include <utility>

#include <vu/conversion.hpp>

namespace vu
{

struct BehaviorInfo::Data
{
  std::string path;
  std::string nature;
  std::map<std::string, std::list<std::string>> tags;
};

namespace
{

/// A member of an object; `fallback` where it is missing.
template <typename T> T member(const Value& value, const char* name, T fallback = {})
{
  const auto found = value.find(name);
  if (found == value.end())
    return fallback;
  try
  {
    if constexpr (std::is_same_v<T, std::string>)
      return fromValue<T>(*found);
    else
      return found->template get<T>();
  }
  catch (const std::exception& error)
  {
    throw ConversionError(std::string("member \"") + name + "\": " + error.what());
  }
}

void expectObject(const Value& value, const char* what)
{
  if (!value.is_object())
    throw ConversionError(std::string("expected ") + what + ", found " + value.type_name());
}

} // namespace

BehaviorInfo::BehaviorInfo(std::string path, std::string nature, std::map<std::string, std::list<std::string>> tags)
    : _data(std::make_shared<const Data>(Data{std::move(path), std::move(nature), std::move(tags)}))
{
}

BehaviorInfo::BehaviorInfo(const Value& value)
{
  expectObject(value, "a behavior record");
  _data = std::make_shared<const Data>(Data{member<std::string>(value, "path"), member<std::string>(value, "nature"),
                                            member<std::map<std::string, std::list<std::string>>>(value, "tags")});
}

std::string BehaviorInfo::path() const { return _data ? _data->path : std::string(); }

std::string BehaviorInfo::nature() const { return _data ? _data->nature : std::string(); }

std::list<std::string> BehaviorInfo::tags(const std::string& locale) const
{
  if (!_data)
    return {};
  const auto found = _data->tags.find(locale);
  return found == _data->tags.end() ? std::list<std::string>() : found->second;
}

Value BehaviorInfo::toValue() const
{
  return {{"path", path()}, {"nature", nature()}, {"tags", _data ? Value(_data->tags) : Value::object()}};
}

PackageInfo::PackageInfo(Data data) : _data(std::make_shared<const Data>(std::move(data))) {}

PackageInfo::PackageInfo(const Value& value)
{
  expectObject(value, "a package record");
  if (!value.contains("uuid"))
    throw ConversionError("a package record without the member \"uuid\"");
  using Texts = std::map<std::string, std::string>;
  Data data;
  data.uuid = member<std::string>(value, "uuid");
  data.version = member<std::string>(value, "version");
  data.installer = member<std::string>(value, "installer");
  data.path = member<std::string>(value, "path");
  data.names = member<Texts>(value, "names");
  data.descriptions = member<Texts>(value, "descriptions");
  data.behaviors = member<std::list<BehaviorInfo>>(value, "behaviors");
  data.may = member<std::vector<std::string>>(value, "may");
  _data = std::make_shared<const Data>(std::move(data));
}

namespace
{
std::string textIn(const std::map<std::string, std::string>& texts, const std::string& locale)
{
  const auto found = texts.find(locale);
  return found == texts.end() ? std::string() : found->second;
}
} // namespace

std::string PackageInfo::uuid() const { return _data ? _data->uuid : std::string(); }
std::string PackageInfo::version() const { return _data ? _data->version : std::string(); }
std::string PackageInfo::installer() const { return _data ? _data->installer : std::string(); }
std::string PackageInfo::path() const { return _data ? _data->path : std::string(); }
std::string PackageInfo::name(const std::string& locale) const { return _data ? textIn(_data->names, locale) : std::string(); }
std::string PackageInfo::description(const std::string& locale) const
{
  return _data ? textIn(_data->descriptions, locale) : std::string();
}
std::list<BehaviorInfo> PackageInfo::behaviors() const { return _data ? _data->behaviors : std::list<BehaviorInfo>(); }
std::vector<std::string> PackageInfo::may() const { return _data ? _data->may : std::vector<std::string>(); }

Value PackageInfo::toValue() const
{
  const Data empty;
  const Data& data = _data ? *_data : empty;
  auto behaviors = Value::array();
  for (const auto& behavior : data.behaviors)
    behaviors.push_back(behavior.toValue());
  return {{"uuid", data.uuid},   {"version", data.version},           {"installer", data.installer}, {"path", data.path},
          {"names", data.names}, {"descriptions", data.descriptions}, {"behaviors", behaviors},      {"may", data.may}};
}

void to_json(Value& value, const BehaviorInfo& info) { value = info.toValue(); }
void from_json(const Value& value, BehaviorInfo& info) { info = BehaviorInfo(value); }
void to_json(Value& value, const PackageInfo& info) { value = info.toValue(); }
void from_json(const Value& value, PackageInfo& info) { info = PackageInfo(value); }

} // namespace vu
