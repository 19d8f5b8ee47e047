#include "rundirectory.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gateway/access.hpp>
#include <vu/log.hpp>

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

std::runtime_error failure(const std::string& what, const fs::path& file)
{
  return std::runtime_error("cannot " + what + " " + file.string() + ": " + std::generic_category().message(errno));
}

constexpr std::size_t spareSize = 512;

fs::path spareOf(const fs::path& file) { return file.parent_path() / ("." + file.filename().string() + ".spare"); }

/// Gives the errno of a failure, 0 otherwise.
int writeNew(const fs::path& file, const std::string& text)
{
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0)
    return errno;
  errno = ENOSPC; // of a write that is cut short
  const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int reason = errno;
  ::close(descriptor);
  if (written)
    return 0;
  ::unlink(file.c_str());
  return reason;
}

/// What is on the disk already is written over, which takes no room.
bool writeOver(const fs::path& file, const std::string& text)
{
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0)
    return false;
  const auto size = static_cast<ssize_t>(text.size());
  const bool written =
      ::fchmod(descriptor, 0600) == 0 && ::pwrite(descriptor, text.data(), text.size(), 0) == size && ::ftruncate(descriptor, size) == 0;
  ::close(descriptor);
  return written;
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
  withdraw(_layout.endpoint);
  withdraw(_layout.token);
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
  const auto text = line + "\n";
  const auto spare = spareOf(file);
  auto fresh = file;
  fresh += ".new";
  ::unlink(fresh.c_str());
  if (const int reason = writeNew(fresh, text); reason == ENOSPC || reason == EDQUOT)
  {
    if (!fs::exists(spare))
      ::rename(file.c_str(), spare.c_str()); // a killed host's
    if (!writeOver(spare, text) || ::rename(spare.c_str(), file.c_str()) != 0)
      vu::log::error("host", "RunDirectory",
                     "the disk is full, and " + file.string() +
                         " could not be written, by which this machine's clients and programs find the host; behaviors run. Make "
                         "room, and start the host anew");
    return;
  }
  else if (reason != 0)
  {
    errno = reason;
    throw failure("create", fresh);
  }
  if (::rename(fresh.c_str(), file.c_str()) != 0)
    throw failure("write", file);
  if (!fs::exists(spare))
    (void)writeNew(spare, std::string(spareSize, '\n'));
}

void RunDirectory::withdraw(const fs::path& file) const
{
  const auto spare = spareOf(file);
  if (fs::exists(spare) || !writeOver(file, "\n") || ::rename(file.c_str(), spare.c_str()) != 0)
    ::unlink(file.c_str());
}

} // namespace Tarvik
