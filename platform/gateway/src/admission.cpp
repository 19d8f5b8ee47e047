#include "admission.hpp"

#include <algorithm>
#include <vector>

#include <boost/asio/ip/host_name.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/field.hpp>

#include <vu/text.hpp>

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

std::string shown(string_view text) { return vu::shortened({text.data(), text.size()}); }

/// Why a request must not be carried out, whoever sent it: its Host header
/// does not name this gateway (somebody else's name leads here), or another
/// site's page sent it. None when all is well.
std::optional<std::string> findForeign(const http::fields& header, const Door& door)
{
  const auto hosts = allowedHosts(door);
  const auto given = header[http::field::host];
  if (header.count(http::field::host) != 1 ||
      std::none_of(hosts.begin(), hosts.end(), [given](const std::string& host) { return iequals(given, host); }))
    return "the Host header '" + shown(given) + "' does not name this host: use " + hosts.front();
  if (header.count(http::field::origin) == 0)
    return std::nullopt;
  const auto origin = header[http::field::origin];
  const auto own = (door.secure ? "https://" : "http://") + std::string(given);
  if (header.count(http::field::origin) != 1 || !iequals(origin, own))
    return "a page of '" + shown(origin) + "' may not use this host";
  return std::nullopt;
}

/// Whether a browser says that another site's page wants this. For requests
/// that have an effect though they carry no Origin.
bool isCrossSite(const http::fields& header)
{
  const auto site = header["Sec-Fetch-Site"];
  return !site.empty() && site != "same-origin" && site != "none";
}

/// A browser keeps one set of cookies for all ports of an address, so that the
/// name tells the port.
std::string cookieName(const Door& door) { return "tarvik_" + std::to_string(door.local.port()); }

/// The bearer token, else the cookie; empty without either.
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

/// Trades the token in the address for a cookie.
HttpAnswer enterWithToken(const std::string& path, std::string_view token, const Door& door, const Access& access)
{
  const auto identity = access.identify(token);
  // A target that begins with two slashes would lead elsewhere.
  if (!identity || path.starts_with("//"))
    return HttpAnswer::text(401, "this token is not known here (any more): run \"tarvik open\" on the host and open the address it prints");
  auto answer = HttpAnswer::redirection(303, "welcome, " + identity->name, path);
  answer.headers.emplace_back("Set-Cookie", cookieName(door) + "=" + std::string(token) + "; HttpOnly; SameSite=Strict; Path=/" +
                                                (door.secure ? "; Secure" : ""));
  return answer;
}

} // namespace

std::variant<Identity, HttpAnswer> admit(const http::request_header<>& header, const Door& door, const Access& access)
{
  const std::string_view target(header.target().data(), header.target().size());
  if (target == "/healthz")
    return HttpAnswer::text(200, "ok");
  if (const auto foreign = findForeign(header, door))
    return HttpAnswer::text(403, *foreign);
  const auto question = target.find('?');
  const auto path = target.substr(0, question);
  const auto query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  const bool reads = header.method() == http::verb::get;
  if (reads && query.starts_with("token="))
    return enterWithToken(std::string(path), query.substr(6), door, access);
  auto identity = access.identify(presentedToken(header, door));
  if (!identity)
  {
    auto answer =
        HttpAnswer::text(401, "a token is needed: in a browser, open the address that \"tarvik open\" prints on the host; a program "
                              "sends \"Authorization: Bearer TOKEN\"");
    answer.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"tarvik\"");
    return answer;
  }
  // A cookie is sent for pages of other ports of this address, too.
  if ((!reads || query.starts_with("eval=") || path == "/rpc") && isCrossSite(header))
    return HttpAnswer::text(403, "another site's page may not use this host");
  return *std::move(identity);
}

} // namespace Tarvik
