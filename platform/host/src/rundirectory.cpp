#include "rundirectory.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

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

void create(const fs::path& directory)
{
  std::error_code error;
  const bool made = fs::create_directories(directory, error);
  if (error)
    throw std::runtime_error("cannot create the directory " + directory.string() + ": " + error.message());
  if (made && ::chmod(directory.c_str(), 0700) != 0)
    throw failure("set the mode of", directory);
}

/// Whoever may change these files decides who comes in and what runs.
void requireOwn(const fs::path& file)
{
  struct stat status
  {
  };
  if (::stat(file.c_str(), &status) != 0)
  {
    if (errno == ENOENT)
      return;
    throw failure("examine", file);
  }
  if (status.st_uid != ::geteuid() && status.st_uid != 0)
    throw std::runtime_error(file.string() + " belongs to another account (user " + std::to_string(status.st_uid) +
                             "), which could change it: run \"chown " + std::to_string(::geteuid()) + " " + file.string() +
                             "\", or give another --root");
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    throw std::runtime_error(file.string() + " can be changed by others: run \"chmod go-w " + file.string() + "\"");
}

} // namespace

RunDirectory::RunDirectory(const fs::path& root) : _layout(root)
{
  create(root);
  requireOwn(root);
  // Not a file in it, which could be removed while it is locked.
  _lock = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (_lock < 0)
    throw failure("open", root);
  try
  {
    if (::flock(_lock, LOCK_EX | LOCK_NB) != 0)
      throw errno == EWOULDBLOCK
          ? std::runtime_error("another host runs on the root " + root.string() + ": stop it, or give another --root")
          : failure("lock", root);
    for (const auto& directory : {_layout.packages, _layout.preferences, _layout.run})
    {
      create(directory);
      requireOwn(directory);
    }
    for (const auto& file : {_layout.tokens, _layout.token, _layout.endpoint, _layout.certificate})
      requireOwn(file);
    if (::chmod(_layout.run.c_str(), 0700) != 0)
      throw failure("set the mode of", _layout.run);
    ::unlink(_layout.certificate.c_str()); // of a host that was killed
  }
  catch (...)
  {
    ::close(_lock);
    throw;
  }
}

RunDirectory::~RunDirectory()
{
  for (const auto& file : {_layout.endpoint, _layout.certificate, _layout.token})
    withdraw(file);
  ::close(_lock);
}

void RunDirectory::announce(const std::string& url) { write(_layout.endpoint, url); }

bool RunDirectory::write(const fs::path& file, const std::string& line) const
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
    if (writeOver(spare, text) && ::rename(spare.c_str(), file.c_str()) == 0)
      return true;
    vu::log::error("host", "RunDirectory",
                   "the disk is full, and " + file.string() +
                       " could not be written, by which this machine's clients and programs find the host; behaviors run. Make "
                       "room, and start the host anew");
    return false;
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
  return true;
}

void RunDirectory::withdraw(const fs::path& file) const
{
  const auto spare = spareOf(file);
  if (fs::exists(spare) || !writeOver(file, "\n") || ::rename(file.c_str(), spare.c_str()) != 0)
    ::unlink(file.c_str());
}

} // namespace Tarvik
