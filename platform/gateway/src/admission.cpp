#include "admission.hpp"

namespace Tarvik
{

namespace http = boost::beast::http;

namespace
{

/// Trades the token in the address for a cookie.
Page enterWithToken(const std::string& path, std::string_view token, const Door& door, const Access& access)
{
  const auto identity = access.identify(token);
  // A target that begins with two slashes would lead elsewhere.
  if (!identity || path.starts_with("//"))
    return Page::text(401, "this token is not known here (any more): run \"tarvik open\" on the host and open the address it prints");
  auto page = Page::redirection(303, "welcome, " + identity->name, path);
  page.headers.emplace_back("Set-Cookie", cookieName(door) + "=" + std::string(token) + "; HttpOnly; SameSite=Strict; Path=/" +
                                              (door.secure ? "; Secure" : ""));
  return page;
}

} // namespace

std::variant<Identity, Page> admit(const http::request_header<>& header, const Door& door, const Access& access)
{
  const std::string_view target(header.target().data(), header.target().size());
  if (target == "/healthz")
    return Page::text(200, "ok");
  if (const auto foreign = findForeign(header, door))
    return Page::text(403, *foreign);
  const auto question = target.find('?');
  const auto path = target.substr(0, question);
  const auto query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  const bool reads = header.method() == http::verb::get;
  if (reads && query.starts_with("token="))
    return enterWithToken(std::string(path), query.substr(6), door, access);
  auto identity = access.identify(presentedToken(header, door));
  if (!identity)
  {
    auto page = Page::text(401, "a token is needed: in a browser, open the address that \"tarvik open\" prints on the host; a program "
                                "sends \"Authorization: Bearer TOKEN\"");
    page.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"tarvik\"");
    return page;
  }
  // A cookie is sent for pages of other ports of this address, too.
  if ((!reads || query.starts_with("eval=") || path == "/rpc") && isCrossSite(header))
    return Page::text(403, "another site's page may not use this host");
  return *std::move(identity);
}

} // namespace Tarvik
