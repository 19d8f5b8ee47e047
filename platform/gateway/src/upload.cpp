#include "upload.hpp"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

constexpr std::string_view prefix = "upload-";

[[noreturn]] void fail(const char* what, const fs::path& path)
{
  throw fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
}

} // namespace

Upload::Upload(const fs::path& directory)
{
  auto name = (directory / (std::string(prefix) + "XXXXXX")).string();
  _descriptor = ::mkostemp(name.data(), O_CLOEXEC);
  if (_descriptor < 0)
    fail("cannot create a file for the upload", directory);
  _path = name;
}

Upload::~Upload()
{
  ::close(_descriptor);
  ::unlink(_path.c_str());
}

void Upload::append(std::string_view content)
{
  while (!content.empty())
  {
    const auto written = ::write(_descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR)
      continue;
    if (written < 0)
      fail("cannot keep the upload", _path);
    content.remove_prefix(static_cast<std::size_t>(written));
  }
}

void Upload::removeLeftOvers(const fs::path& directory)
{
  for (const auto& entry : fs::directory_iterator(directory))
    if (entry.path().filename().string().starts_with(prefix))
      fs::remove(entry.path());
}

UploadBody::Parser<boost::beast::http::buffer_body>& UploadBody::nextChunk()
{
  auto& body = _parser.get().body();
  body.data = _chunk.data();
  body.size = _chunk.size();
  return _parser;
}

void UploadBody::store()
{
  if (!_file)
    _file = std::make_unique<Upload>(_directory);
  else
    _file->append({_chunk.data(), _chunk.size() - _parser.get().body().size});
}

} // namespace Tarvik
