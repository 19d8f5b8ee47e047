#include <vu/os.hpp>

#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace vu::os
{

namespace
{
int startUmask = -1;
} // namespace

void restrictNewFiles() { startUmask = static_cast<int>(::umask(077)); }

int inheritedUmask() { return startUmask; }

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
