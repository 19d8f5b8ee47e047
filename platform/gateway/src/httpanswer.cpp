#include "httpanswer.hpp"

#include <boost/beast/core/string.hpp>

namespace Tarvik
{

namespace http = boost::beast::http;

http::response<http::string_body> toResponse(HttpAnswer page, bool keepAlive, bool strictTransport)
{
  http::response<http::string_body> response(static_cast<http::status>(page.status), 11);
  response.set(http::field::content_type, page.type);
  response.set(http::field::cache_control, "no-store");
  response.set("Content-Security-Policy", boost::beast::string_view(page.policy.data(), page.policy.size()));
  response.set("X-Content-Type-Options", "nosniff");
  response.set("X-Frame-Options", "DENY");
  response.set("Referrer-Policy", "no-referrer");
  response.set("Cross-Origin-Opener-Policy", "same-origin");
  response.set("Cross-Origin-Resource-Policy", "same-origin");
  if (strictTransport)
    response.set("Strict-Transport-Security", "max-age=31536000");
  for (const auto& [name, value] : page.headers)
    response.set(name, value);
  response.body() = std::move(page.body);
  response.keep_alive(keepAlive);
  if (response.result() == http::status::no_content)
    response.erase(http::field::content_type);
  else
    response.prepare_payload();
  return response;
}

} // namespace Tarvik
