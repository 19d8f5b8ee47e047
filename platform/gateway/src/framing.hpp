#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/system/error_code.hpp>

namespace Tarvik
{

/// Why it cannot be told where the body of a request ends, so that it might be
/// taken for the next request; none where it can.
std::optional<std::string> findBadFraming(const boost::beast::http::request_header<>& header);

/// Refuses a chunked body that brings more than `most` bytes of extensions,
/// which are read away otherwise, however many; the error is that of a header
/// that is too large. It stays where it is while a parser uses it.
class ChunkBound
{
public:
  explicit ChunkBound(std::size_t most);
  ChunkBound(const ChunkBound&) = delete;
  ChunkBound& operator=(const ChunkBound&) = delete;

  template <typename Parser> void watch(Parser& parser) { parser.on_chunk_header(_look); }

private:
  std::size_t _left;
  std::function<void(std::uint64_t, boost::beast::string_view, boost::system::error_code&)> _look;
};

} // namespace Tarvik
