#include <vu/os.hpp>

#include <algorithm>
#include <cstdlib>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace vu::os
{

namespace
{

constexpr rlim_t filesWanted = 65536;

int startUmask = -1;
rlim_t inherited = 0; // 0: the limit was not raised

rlimit fileLimit()
{
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return limit;
}

} // namespace

void restrictNewFiles() { startUmask = static_cast<int>(::umask(077)); }

int inheritedUmask() { return startUmask; }

void raiseFileLimit()
{
  auto limit = fileLimit();
  inherited = limit.rlim_cur;
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, filesWanted));
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

std::uint64_t inheritedFileLimit() { return inherited != 0 ? inherited : fileLimit().rlim_cur; }

std::string home()
{
  if (const char* home = std::getenv("HOME"); home && *home)
    return home;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir)
    return found->pw_dir;
  return "/";
}

} // namespace vu::os
