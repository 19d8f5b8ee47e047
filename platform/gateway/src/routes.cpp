#include "routes.hpp"

#include <stdexcept>

#include <boost/beast/websocket/rfc6455.hpp>

#include "assets.hpp"
#include "expression.hpp"
#include "pages.hpp"

namespace Tarvik
{

namespace beast = boost::beast;
namespace http = beast::http;

namespace
{

Page wrongMethod(unsigned status, const std::string& text, const std::string& allowed)
{
  auto page = Page::text(status, text);
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
  return Page::text(403, reason);
}

Route findModuleRoute(const std::string& path, const std::string& query, ZB::ZBBroker& broker)
{
  const auto slash = path.find('/', 1);
  const auto module = path.substr(1, slash == std::string::npos ? slash : slash - 1);
  if (slash != std::string::npos && slash + 1 != path.size())
    return Page::text(404, "there is no page " + path);
  if (!broker.session()->find(module))
    return Page::text(404, "there is no module " + module);
  if (slash == std::string::npos && query.empty())
    return Page::redirection(302, "the page is at " + path + "/", path + "/"); // a service's name: nothing to be encoded
  if (!query.starts_with("eval="))
    return Work{[module](ZB::ZBBroker& owner, const Client&) { return Pages::module(owner, module); }};
  return Work{[expression = percentDecode(query.substr(5))](ZB::ZBBroker& owner, const Client& client)
              { return Pages::evaluate(owner, expression, client); }};
}

} // namespace

Route findRoute(const http::request_header<>& header, const Client& client, ZB::ZBBroker& broker)
{
  const std::string target(header.target());
  const auto question = target.find('?');
  const auto path = target.substr(0, question);
  const auto query = question == std::string::npos ? std::string() : target.substr(question + 1);
  if (!path.starts_with('/'))
    return Page::text(400, "the target " + target + " does not begin with a slash");
  if (path == "/rpc")
    return findRpcRoute(header);
  if (path == "/packages")
    return findUploadRoute(header, client);
  if (header.method() != http::verb::get)
    return wrongMethod(405, "pages are read with GET; calls are sent to /rpc", "GET");
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
    return Page::text(400, error.what());
  }
}

} // namespace Tarvik
