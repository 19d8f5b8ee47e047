#include "rundirectory.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

std::runtime_error failure(const std::string& what, const fs::path& file)
{
  return std::runtime_error("cannot " + what + " " + file.string() + ": " + std::generic_category().message(errno));
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
    ::unlink(file.c_str());
  ::close(_lock);
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
