#include "admission.hpp"

#include <algorithm>
#include <vector>

#include <boost/asio/ip/host_name.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/rfc7230.hpp>

#include <vu/text.hpp>

#include "entry.hpp"

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
  // A machine may look itself up as one of its loopback addresses; without a
  // certificate, so may be what somebody else calls by that name.
  if (!address.is_loopback() || door.secure)
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

std::string_view viewOf(string_view text) { return {text.data(), text.size()}; }

std::string shown(string_view text) { return vu::shortened(viewOf(text)); }

/// The origin of the host's own pages, as a request that names it tells it.
std::string ownOrigin(const http::fields& header, const Door& door)
{
  return (door.secure ? "https://" : "http://") + std::string(header[http::field::host]);
}

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
  if (header.count(http::field::origin) != 1 || !iequals(origin, ownOrigin(header, door)))
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

enum class Referrer
{
  None,
  Own,
  Foreign
};

Referrer referrerOf(const http::fields& header, const Door& door)
{
  const auto count = header.count(http::field::referer);
  if (count == 0)
    return Referrer::None;
  const auto own = ownOrigin(header, door) + "/";
  return count == 1 && iequals(header[http::field::referer].substr(0, own.size()), own) ? Referrer::Own : Referrer::Foreign;
}

/// Whether one of the host's own pages asks for this, and not a person's
/// browser that goes there: a link can be anywhere.
bool comesFromOwnPage(const http::fields& header, const Door& door)
{
  const auto mode = header["Sec-Fetch-Mode"];
  const auto destination = header["Sec-Fetch-Dest"];
  for (const auto* const shown : {"document", "iframe", "frame", "embed", "object"})
    if (destination == shown)
      return false;
  if (mode == "navigate" || mode == "nested-navigate")
    return false;
  const auto site = header["Sec-Fetch-Site"];
  if (!site.empty())
    return site == "same-origin";
  return header.count(http::field::origin) == 1 || referrerOf(header, door) == Referrer::Own; // findForeign() has compared the origin
}

/// As programs present it; page scripts, whose browsers have no other way, as
/// a protocol of their WebSocket. Empty when there is none.
std::string bearerToken(const http::fields& header)
{
  const auto authorization = header[http::field::authorization];
  const string_view scheme = "Bearer ";
  if (authorization.size() > scheme.size() && iequals(authorization.substr(0, scheme.size()), scheme))
    return std::string(authorization.substr(scheme.size()));
  const string_view protocol = "tarvik.bearer.";
  for (const auto offered : http::token_list(header[http::field::sec_websocket_protocol]))
    if (offered.starts_with(protocol))
      return std::string(offered.substr(protocol.size()));
  return {};
}

/// Empty without one.
std::string cookieOf(const http::fields& header, const Door& door)
{
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

} // namespace

std::string cookieName(const Door& door) { return "tarvik_" + std::to_string(door.local.port()); }

std::variant<Identity, HttpAnswer, EntryForm> admit(const http::request_header<>& header, const Door& door, const Access& access,
                                                    Sessions& sessions)
{
  const auto target = viewOf(header.target());
  if (target == "/healthz")
    return HttpAnswer::text(200, "ok");
  if (const auto foreign = findForeign(header, door))
    return HttpAnswer::text(403, *foreign);
  const auto question = target.find('?');
  const auto path = target.substr(0, question);
  const auto query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  const bool reads = header.method() == http::verb::get;
  const bool evaluates = query.starts_with("eval=");
  const bool toPerson =
      reads && path != "/rpc" && !evaluates && viewOf(header[http::field::accept]).find("text/html") != std::string_view::npos;

  const bool byToken = query.starts_with("token=");
  const bool byCode = query.starts_with("code=");
  const bool byForm = header.method() == http::verb::post;
  if (path == "/" && (byForm || (reads && (byToken || byCode))))
  {
    if (isCrossSite(header) || referrerOf(header, door) == Referrer::Foreign)
      return HttpAnswer::text(403, "a session does not begin with a link on another page: copy the address into the browser");
    if (byForm)
      return EntryForm();
    return Entry::answer(byToken ? sessions.beginWithToken(query.substr(6)) : sessions.beginWithCode(query.substr(5)), door, toPerson);
  }
  if (path == "/" && reads && query == "enter")
    return Entry::form(200, "this host lets in whoever has a token");

  const auto bearer = bearerToken(header);
  // A cookie comes with whatever a browser sends here, so that it opens no more
  // than pages.
  const bool byCookie = bearer.empty() && reads && path != "/rpc";
  auto identity = byCookie ? sessions.identify(cookieOf(header, door)) : access.identify(bearer);
  if (!identity)
    return Entry::demand(toPerson, bearer.empty() ? "a token is needed" : "this token is not known here (any more)");
  if (byCookie && evaluates && !comesFromOwnPage(header, door))
    return HttpAnswer::text(403, "in a page's session only this host's own pages may evaluate; a program sends its token");
  if ((!reads || evaluates || path == "/rpc") && isCrossSite(header))
    return HttpAnswer::text(403, "another site's page may not use this host");
  return *std::move(identity);
}

} // namespace Tarvik
