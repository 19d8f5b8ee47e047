#include "requestguard.hpp"

#include <algorithm>
#include <vector>

#include <boost/asio/ip/host_name.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/rfc7230.hpp>

namespace Tarvik
{

namespace http = boost::beast::http;
namespace ip = boost::asio::ip;
using boost::beast::iequals;
using boost::beast::string_view;

namespace
{

std::vector<std::string> allowedHosts(const Door& door)
{
  auto address = door.local.address();
  if (address.is_v6() && address.to_v6().is_v4_mapped())
    address = ip::make_address_v4(ip::v4_mapped, address.to_v6());
  std::vector<std::string> names{address.is_v6() ? "[" + address.to_string() + "]" : address.to_string()};
  if (address.is_loopback())
    names.insert(names.end(), {"127.0.0.1", "localhost", "[::1]"});
  else
    names.push_back(ip::host_name());
  std::vector<std::string> hosts;
  for (const auto& name : names)
  {
    hosts.push_back(name + ":" + std::to_string(door.local.port()));
    if (door.local.port() == (door.secure ? 443 : 80))
      hosts.push_back(name);
  }
  return hosts;
}

} // namespace

std::optional<std::string> findForeign(const http::fields& header, const Door& door)
{
  const auto hosts = allowedHosts(door);
  const auto given = header[http::field::host];
  if (header.count(http::field::host) != 1 ||
      std::none_of(hosts.begin(), hosts.end(), [given](const std::string& host) { return iequals(given, host); }))
    return "the Host header '" + std::string(given) + "' does not name this host: use " + hosts.front();
  if (header.count(http::field::origin) == 0)
    return std::nullopt;
  const auto origin = header[http::field::origin];
  const auto own = (door.secure ? "https://" : "http://") + std::string(given);
  if (header.count(http::field::origin) != 1 || !iequals(origin, own))
    return "a page of '" + std::string(origin) + "' may not use this host";
  return std::nullopt;
}

bool isCrossSite(const http::fields& header)
{
  const auto site = header["Sec-Fetch-Site"];
  return !site.empty() && site != "same-origin" && site != "none";
}

std::string cookieName(const Door& door) { return "tarvik_" + std::to_string(door.local.port()); }

std::string presentedToken(const http::fields& header, const Door& door)
{
  const auto authorization = header[http::field::authorization];
  const string_view scheme = "Bearer ";
  if (authorization.size() > scheme.size() && iequals(authorization.substr(0, scheme.size()), scheme))
    return std::string(authorization.substr(scheme.size()));
  const auto name = cookieName(door);
  for (auto [field, end] = header.equal_range(http::field::cookie); field != end; ++field)
  {
    auto rest = field->value();
    while (!rest.empty())
    {
      const auto semicolon = std::min(rest.find(';'), rest.size());
      auto pair = rest.substr(0, semicolon);
      rest.remove_prefix(std::min(semicolon + 1, rest.size()));
      while (pair.starts_with(' '))
        pair.remove_prefix(1);
      if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=')
        return std::string(pair.substr(name.size() + 1));
    }
  }
  return {};
}

} // namespace Tarvik
