#pragma once

#include <variant>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/message.hpp>

#include <gateway/access.hpp>

#include "httpanswer.hpp"

namespace Tarvik
{

/// Where a connection came in.
struct Door
{
  boost::asio::ip::tcp::endpoint local;
  bool secure = false;
};

/// Whom a request comes from, or the answer that ends it here: a refusal, the
/// trade of a token in the address for a cookie, or what needs no token. Told
/// by the header alone, before any of the body is read.
std::variant<Identity, HttpAnswer> admit(const boost::beast::http::request_header<>& header, const Door& door, const Access& access);

} // namespace Tarvik
