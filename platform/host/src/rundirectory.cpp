#include "rundirectory.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gateway/access.hpp>

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

std::runtime_error failure(const std::string& what, const fs::path& file)
{
  return std::runtime_error("cannot " + what + " " + file.string() + ": " + std::generic_category().message(errno));
}

} // namespace

RunDirectory::RunDirectory(const fs::path& root) : _layout(root)
{
  for (const auto& directory : {_layout.packages, _layout.preferences, _layout.run})
  {
    std::error_code error;
    fs::create_directories(directory, error);
    if (error)
      throw std::runtime_error("cannot create the directory " + directory.string() + ": " + error.message());
  }
  if (::chmod(_layout.run.c_str(), 0700) != 0)
    throw failure("set the mode of", _layout.run);
  _lock = ::open(_layout.lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (_lock < 0)
    throw failure("open", _layout.lock);
  if (::flock(_lock, LOCK_EX | LOCK_NB) != 0)
  {
    const int reason = errno;
    ::close(_lock);
    if (reason == EWOULDBLOCK)
      throw std::runtime_error("another host runs on the root " + root.string() + ": stop it, or give another --root");
    errno = reason;
    throw failure("lock", _layout.lock);
  }
}

RunDirectory::~RunDirectory()
{
  // The lock's file stays: whoever waits for it must find the same one.
  ::unlink(_layout.endpoint.c_str());
  ::unlink(_layout.token.c_str());
  ::close(_lock);
}

std::string RunDirectory::makeToken()
{
  auto token = Tarvik::makeToken();
  write(_layout.token, token);
  return token;
}

void RunDirectory::announce(const std::string& url) { write(_layout.endpoint, url); }

void RunDirectory::write(const fs::path& file, const std::string& line) const
{
  auto fresh = file;
  fresh += ".new";
  ::unlink(fresh.c_str());
  const int descriptor = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0)
    throw failure("create", fresh);
  const auto text = line + "\n";
  const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(descriptor);
  if (!written || ::rename(fresh.c_str(), file.c_str()) != 0)
    throw failure("write", file);
}

} // namespace Tarvik
