#include <algorithm>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <framing.hpp>

#include "input.hpp"

namespace asio = boost::asio;
namespace http = boost::beast::http;

namespace
{
constexpr std::size_t mostBody = 4096;
constexpr std::size_t mostExtensions = 256;
} // namespace

/// A request as it comes, in pieces of a size that the first byte tells.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  if (size == 0)
    return 0;
  const std::size_t piece = std::size_t(data[0]) + 1;
  const auto text = asText(data + 1, size - 1);
  Tarvik::ChunkBound bound(mostExtensions);
  http::request_parser<http::string_body> parser;
  parser.header_limit(1024);
  parser.body_limit(mostBody);
  bound.watch(parser);

  boost::system::error_code error;
  std::size_t parsed = 0;
  bool looked = false;
  for (std::size_t come = piece; parsed < text.size() && !parser.is_done(); come += piece)
  {
    const auto end = std::min(come, text.size());
    parsed += parser.put(asio::buffer(text.data() + parsed, end - parsed), error);
    if (error && error != http::error::need_more)
      return 0;
    error = {};
    if (parser.is_header_done() && !std::exchange(looked, true))
    {
      if (Tarvik::findBadFraming(parser.get().base()))
        return 0;
      // What is let through has one end, and the parser sees it.
      require(!parser.get().has_content_length() || !parser.chunked());
      require(parser.get().count(http::field::transfer_encoding) == (parser.chunked() ? 1 : 0));
    }
    if (come >= text.size())
      break;
  }
  require(parser.get().body().size() <= mostBody);
  return 0;
}
