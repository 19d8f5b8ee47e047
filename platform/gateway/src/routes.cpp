#include "routes.hpp"

#include <stdexcept>

#include <boost/beast/websocket/rfc6455.hpp>

#include "assets.hpp"
#include "callrecord.hpp"
#include "expression.hpp"
#include "pages.hpp"

namespace Tarvik
{

namespace beast = boost::beast;
namespace http = beast::http;

namespace
{

constexpr std::string_view evaluates = "eval=";

HttpAnswer wrongMethod(unsigned status, const std::string& text, const std::string& allowed)
{
  auto page = HttpAnswer::text(status, text);
  page.headers.emplace_back("Allow", allowed);
  return page;
}

Route findRpcRoute(const http::request_header<>& header)
{
  if (header.method() == http::verb::post)
    return RpcMessage();
  if (beast::websocket::is_upgrade(header))
    return WebSocketHandshake();
  const bool reads = header.method() == http::verb::get;
  auto page = wrongMethod(reads ? 426 : 405, "send a JSON-RPC message with POST, or open a WebSocket", "GET, POST");
  if (reads)
    page.headers.emplace_back("Upgrade", "websocket");
  return page;
}

Route findUploadRoute(const http::request_header<>& header, const Client& client)
{
  if (header.method() != http::verb::post)
    return wrongMethod(405, "packages are sent with POST", "POST");
  if (client.identity.role == Role::Admin)
    return FileUpload();
  const auto reason = "the role " + std::string(roleName(client.identity.role)) + " may not install packages";
  LoggedRequest(client, "POST /packages").ended(reason);
  return HttpAnswer::text(403, reason);
}

Route findModuleRoute(const std::string& path, const std::string& query, ZB::ZBBroker& broker)
{
  const auto slash = path.find('/', 1);
  const auto module = path.substr(1, slash == std::string::npos ? slash : slash - 1);
  if (slash != std::string::npos && slash + 1 != path.size())
    return HttpAnswer::text(404, "there is no page " + path);
  if (!broker.session()->find(module))
    return HttpAnswer::text(404, "there is no module " + module);
  if (query.starts_with(evaluates))
    return Evaluation{percentDecode(query.substr(evaluates.size()))};
  // The page's own script asks for what is beside it.
  if (slash == std::string::npos)
  {
    const auto page = path + "/"; // a service's name: nothing to be encoded
    return HttpAnswer::redirection(302, "the page is at " + page, query.empty() ? page : page + "?" + query);
  }
  return Work{[module](ZB::ZBBroker& owner, const Client&) { return Pages::module(owner, module); }};
}

} // namespace

Route findRoute(const http::request_header<>& header, const Client& client, ZB::ZBBroker& broker)
{
  const std::string target(header.target());
  const auto question = target.find('?');
  const auto path = target.substr(0, question);
  const auto query = question == std::string::npos ? std::string() : target.substr(question + 1);
  if (!path.starts_with('/'))
    return HttpAnswer::text(400, "the target " + target + " does not begin with a slash");
  if (path == "/rpc")
    return findRpcRoute(header);
  if (path == "/packages")
    return findUploadRoute(header, client);
  if (header.method() != http::verb::get)
    return wrongMethod(405, "pages are read with GET; calls are sent to /rpc", "GET");
  if (path == "/" && query.starts_with(evaluates))
    return HttpAnswer::text(404, "there is no module in the address: write /MODULE/?eval=EXPRESSION");
  if (auto asset = findAsset(path))
    return std::move(*asset);
  if (path == "/metrics")
    return MetricsRequest();
  if (path == "/modules")
    return Work{[](ZB::ZBBroker& owner, const Client&) { return Pages::index(owner); }};
  try
  {
    return findModuleRoute(percentDecode(path), query, broker);
  }
  catch (const std::invalid_argument& error) // a percent sign without its digits
  {
    return HttpAnswer::text(400, error.what());
  }
}

} // namespace Tarvik
