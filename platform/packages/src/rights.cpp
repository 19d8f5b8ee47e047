#include <packages/rights.hpp>

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include <vu/text.hpp>

namespace packages
{

namespace
{

constexpr std::size_t longestName = 128;

bool isIdentifier(std::string_view name)
{
  const auto allowed = [](char c)
  { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'; };
  return !name.empty() && name.size() <= longestName && std::all_of(name.begin(), name.end(), allowed);
}

bool isCall(std::string_view text)
{
  const auto dot = text.find('.');
  if (dot == std::string_view::npos)
    return text == "*";
  const auto method = text.substr(dot + 1);
  return isIdentifier(text.substr(0, dot)) && (method == "*" || isIdentifier(method));
}

} // namespace

Rights::Rights(const std::vector<std::string>& may) : _asked(may.begin(), may.end())
{
  for (const auto& call : may)
    if (!isCall(call))
      throw std::invalid_argument("the call " + vu::inQuotes(call) + R"( is neither "Service.method", "Service.*" nor "*")");
}

bool Rights::allow(const std::string& service, const std::string& method, vu::Role least) const
{
  return least <= vu::Role::Operator || service == "ZBMemory" || _asked.contains("*") || _asked.contains(service + ".*") ||
         _asked.contains(service + "." + method);
}

std::optional<std::string> Rights::refusal(const std::string& service, const std::string& method, vu::Role least) const
{
  if (allow(service, method, least))
    return std::nullopt;
  const auto call = service + "." + method;
  return "the behavior may not call " + call + ": its package's manifest does not say <may call=\"" + call + "\"/>";
}

} // namespace packages
