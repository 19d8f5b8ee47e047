#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <string_view>

#include <boost/beast/http/buffer_body.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>

#include "framing.hpp"

namespace Tarvik
{

/// A file that a client sends, on disk as it comes and gone with this object.
/// It blocks: for the broker's pool, one thread at a time. Failures are
/// std::filesystem::filesystem_error.
class Upload
{
public:
  explicit Upload(const std::filesystem::path& directory);
  ~Upload();
  Upload(const Upload&) = delete;
  Upload& operator=(const Upload&) = delete;

  void append(std::string_view content);
  const std::filesystem::path& path() const { return _path; }

  /// What a crash has left in `directory`. Not while anybody sends.
  static void removeLeftOvers(const std::filesystem::path& directory);

private:
  std::filesystem::path _path;
  int _descriptor = -1;
};

/// A request's body on its way into a file, a chunk at a time: whoever reads it
/// and whoever stores it take turns.
class UploadBody
{
public:
  template <typename Body> using Parser = boost::beast::http::request_parser<Body>;

  UploadBody(Parser<boost::beast::http::empty_body>&& header, std::filesystem::path directory)
      : _parser(std::move(header)), _directory(std::move(directory))
  {
  }

  /// To be read with until it has no room left (need_buffer), or all is there.
  Parser<boost::beast::http::buffer_body>& nextChunk();
  void watch(ChunkBound& bound) { bound.watch(_parser); }
  bool isWhole() const { return _parser.is_done(); }

  /// Writes what has been read into the file, which the first time is made.
  void store();
  /// Of the file; after the first store().
  const std::filesystem::path& path() const { return _file->path(); }

private:
  Parser<boost::beast::http::buffer_body> _parser;
  const std::filesystem::path _directory;
  std::array<char, 128 << 10> _chunk;
  std::unique_ptr<Upload> _file;
};

} // namespace Tarvik
