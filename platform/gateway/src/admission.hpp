#pragma once

#include <string>
#include <variant>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/message.hpp>

#include <gateway/sessions.hpp>

#include "httpanswer.hpp"

namespace Tarvik
{

/// Where a connection came in.
struct Door
{
  boost::asio::ip::tcp::endpoint local;
  bool secure = false;
};

/// The name of the cookie of a page's session. A browser keeps one set for all
/// ports of an address, so that it tells the port.
std::string cookieName(const Door& door);

/// The body is the form that begins a page's session.
struct EntryForm
{
};

/// Whom a request comes from, or the answer that ends it here: a refusal, the
/// beginning of a page's session, or what needs no token. Told by the header
/// alone, before any of the body is read.
std::variant<Identity, HttpAnswer, EntryForm> admit(const boost::beast::http::request_header<>& header, const Door& door,
                                                    const Access& access, Sessions& sessions);

} // namespace Tarvik
