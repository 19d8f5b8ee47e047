#pragma once

#include <variant>

#include <boost/beast/http/message.hpp>

#include <gateway/access.hpp>

#include "page.hpp"
#include "requestguard.hpp"

namespace Tarvik
{

/// Whom a request comes from, or the answer that ends it here: a refusal, the
/// trade of a token in the address for a cookie, or what needs no token. Told
/// by the header alone, before any of the body is read.
std::variant<Identity, Page> admit(const boost::beast::http::request_header<>& header, const Door& door, const Access& access);

} // namespace Tarvik
