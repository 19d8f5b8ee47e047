#pragma once

#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/fields.hpp>

namespace Tarvik
{

/// Where a connection came in.
struct Door
{
  boost::asio::ip::tcp::endpoint local;
  bool secure = false;
};

/// Why a request must not be carried out, whoever sent it: its Host header
/// does not name this gateway (somebody else's name leads here), or another
/// site's page sent it. None when all is well.
std::optional<std::string> findForeign(const boost::beast::http::fields& header, const Door& door);

/// Whether a browser says that another site's page wants this. For requests
/// that have an effect though they carry no Origin.
bool isCrossSite(const boost::beast::http::fields& header);

/// A browser keeps one set of cookies for all ports of an address, so that the
/// name tells the port.
std::string cookieName(const Door& door);

/// The bearer token, else the cookie; empty without either.
std::string presentedToken(const boost::beast::http::fields& header, const Door& door);

} // namespace Tarvik
