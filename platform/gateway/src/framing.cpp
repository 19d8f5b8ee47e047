#include "framing.hpp"

#include <boost/beast/http/error.hpp>
#include <boost/beast/http/field.hpp>

#include <vu/text.hpp>

namespace Tarvik
{

namespace http = boost::beast::http;

std::optional<std::string> findBadFraming(const http::request_header<>& header)
{
  const auto encodings = header.count(http::field::transfer_encoding);
  if (encodings == 0)
    return std::nullopt;
  const auto encoding = header[http::field::transfer_encoding];
  if (encodings > 1 || !boost::beast::iequals(encoding, "chunked"))
    return "Transfer-Encoding must be chunked and nothing else, not '" + vu::shortened({encoding.data(), encoding.size()}) + "'";
  if (header.count(http::field::content_length) != 0)
    return std::string("a request has Content-Length or Transfer-Encoding, not both");
  if (header.version() < 11)
    return std::string("HTTP/1.0 knows no Transfer-Encoding");
  return std::nullopt;
}

ChunkBound::ChunkBound(std::size_t most)
    : _left(most), _look(
                       [this](std::uint64_t, boost::beast::string_view extensions, boost::system::error_code& error)
                       {
                         if (extensions.size() > _left)
                           error = http::error::header_limit;
                         else
                           _left -= extensions.size();
                       })
{
}

} // namespace Tarvik
