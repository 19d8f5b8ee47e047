#include "runtokens.hpp"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <packages/rights.hpp>
#include <vu/log.hpp>

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

fs::filesystem_error failure(const char* what, const fs::path& path)
{
  return fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
}

void writePrivately(const fs::path& file, const std::string& text)
{
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0)
    throw failure("cannot make the file of a run's token", file);
  const bool written = ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int reason = errno;
  ::close(descriptor);
  if (written)
    return;
  ::unlink(file.c_str());
  errno = reason;
  throw failure("cannot write a run's token", file);
}

} // namespace

RunTokens::RunTokens(fs::path directory, std::shared_ptr<Access> access) : _directory(std::move(directory)), _access(std::move(access))
{
  clear();
  std::error_code ignored;
  fs::create_directories(_directory.parent_path(), ignored);
  // On a full disk the host starts all the same.
  if (::mkdir(_directory.c_str(), 0700) != 0 && (errno != EEXIST || ::chmod(_directory.c_str(), 0700) != 0))
    vu::log::error("host", "RunTokens", failure("programs of behaviors get no tokens", _directory).what());
}

RunTokens::~RunTokens()
{
  for (const auto number : std::exchange(_numbers, {}))
    _access->remove(number);
  clear();
}

/// The directory stays, since a full disk has no room for another.
void RunTokens::clear() const
{
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(_directory, ignored))
    fs::remove_all(entry.path(), ignored);
}

RunTokens::Run RunTokens::begin(const std::string& caller, const std::vector<std::string>& may)
{
  Identity identity{caller, Role::Operator};
  identity.rights = [rights = packages::Rights(may)](const ZB::Call& call, Role least)
  { return rights.refusal(call.service, call.method, least); };
  const auto token = makeToken();
  const auto number = _access->add(token, std::move(identity));
  const auto file = fileOf(number);
  try
  {
    writePrivately(file, token + "\n");
  }
  catch (...)
  {
    _access->remove(number);
    throw;
  }
  const std::lock_guard lock(_mutex);
  _numbers.insert(number);
  return {number, file};
}

void RunTokens::end(std::uint64_t number)
{
  {
    const std::lock_guard lock(_mutex);
    if (_numbers.erase(number) == 0)
      return;
  }
  ::unlink(fileOf(number).c_str());
  _access->remove(number, "the run has ended");
}

} // namespace Tarvik
