#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

namespace Tarvik
{

/// What a request over HTTP is answered with.
struct HttpAnswer
{
  /// Content security policy of the gateway's own pages: files of their own
  /// and nothing else, no script inside the page.
  static constexpr std::string_view strictPolicy =
      "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
      "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
  /// Of a module's own page: it runs the script inside it and talks to this
  /// host.
  static constexpr std::string_view modulePolicy = "default-src 'none'; script-src 'unsafe-inline'; connect-src 'self'; "
                                                   "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

  unsigned status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;
  std::string_view policy = strictPolicy;
  /// Besides those that every answer has, which they replace.
  std::vector<std::pair<std::string, std::string>> headers = {};

  /// The text of an answer in words, for the log.
  std::string summary() const { return type.starts_with("text/plain") ? body.substr(0, body.size() - 1) : "with a page"; }

  static HttpAnswer text(unsigned status, std::string body) { return {status, "text/plain; charset=utf-8", std::move(body) + "\n"}; }
  static HttpAnswer redirection(unsigned status, std::string body, std::string location)
  {
    auto page = text(status, std::move(body));
    page.headers.emplace_back("Location", std::move(location));
    return page;
  }
};

/// With the headers that every answer has.
boost::beast::http::response<boost::beast::http::string_body> toResponse(HttpAnswer page, bool keepAlive, bool strictTransport);

} // namespace Tarvik
