#include "client.hpp"

#include <vu/caller.hpp>

namespace Tarvik
{

namespace
{

constexpr std::size_t longestText = 32;
constexpr std::size_t mostArguments = 8;

std::string shortened(const vu::Value& value)
{
  if (value.is_structured())
    return value.empty() ? value.dump() : value.is_array() ? "[...]" : "{...}";
  if (value.is_string() && value.get_ref<const std::string&>().size() > longestText)
    return shortened(value.get_ref<const std::string&>().substr(0, longestText / 2) + "...");
  return value.dump(-1, ' ', false, vu::Value::error_handler_t::replace);
}

std::string argumentList(const vu::Value& arguments)
{
  std::string text;
  for (std::size_t i = 0; i < arguments.size(); ++i)
  {
    text += i == 0 ? "" : ", ";
    if (i == mostArguments)
      return text + "...";
    text += shortened(arguments[i]);
  }
  return text;
}

} // namespace

LoggedRequest::LoggedRequest(Client client, const std::string& service, const std::string& method, const vu::Value& arguments)
    : _client(std::move(client)), _what(service + "." + method),
      _level(mayCall(Role::Observer, service, method) ? vu::log::Level::Debug : vu::log::Level::Info)
{
  if (_level == vu::log::Level::Info)
    _what += "(" + argumentList(arguments) + ")";
}

LoggedRequest::LoggedRequest(Client client, std::string what)
    : _client(std::move(client)), _what(std::move(what)), _level(vu::log::Level::Info)
{
}

void LoggedRequest::ended(const std::string& outcome) const
{
  const vu::CallerScope caller(_client.identity.name); // which the line tells
  vu::log::write(_level, "gateway", "call", _what + " from " + _client.address + ": " + outcome);
}

} // namespace Tarvik
