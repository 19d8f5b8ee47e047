#include <vu/description.hpp>

#include <algorithm>

#include <vu/conversion.hpp>

namespace vu
{

namespace
{

Value toValue(const ParameterDescription& parameter)
{
  return {{"name", parameter.name}, {"description", parameter.description}, {"type", parameter.type}};
}

ParameterDescription toParameter(const Value& value)
{
  return {value.at("name").get<std::string>(), value.at("description").get<std::string>(), value.at("type").get<std::string>()};
}

} // namespace

const MethodDescription* ObjectDescription::method(const std::string& name) const
{
  const auto found = std::find_if(methods.begin(), methods.end(), [&name](const MethodDescription& method) { return method.name == name; });
  return found == methods.end() ? nullptr : &*found;
}

void to_json(Value& value, const ObjectDescription& description)
{
  auto methods = Value::array();
  for (const auto& method : description.methods)
  {
    auto parameters = Value::array();
    for (const auto& parameter : method.parameters)
      parameters.push_back(toValue(parameter));
    methods.push_back({{"name", method.name},
                       {"description", method.description},
                       {"parameters", parameters},
                       {"returns", method.returns ? toValue(*method.returns) : Value()}});
  }
  auto signals = Value::array();
  for (const auto& signal : description.signals)
    signals.push_back({{"name", signal.name}, {"arguments", signal.arguments}});
  value = {{"name", description.name}, {"description", description.description}, {"methods", methods}, {"signals", signals}};
}

void from_json(const Value& value, ObjectDescription& description)
{
  description = {};
  description.name = value.at("name").get<std::string>();
  description.description = value.at("description").get<std::string>();
  for (const auto& entry : value.at("methods"))
  {
    MethodDescription method;
    method.name = entry.at("name").get<std::string>();
    method.description = entry.at("description").get<std::string>();
    for (const auto& parameter : entry.at("parameters"))
      method.parameters.push_back(toParameter(parameter));
    if (!entry.at("returns").is_null())
    {
      method.returns = toParameter(entry.at("returns"));
      method.future = method.returns->type.starts_with("future<");
    }
    description.methods.push_back(std::move(method));
  }
  for (const auto& entry : value.at("signals"))
    description.signals.push_back({entry.at("name").get<std::string>(), entry.at("arguments").get<std::vector<std::string>>()});
}

} // namespace vu
