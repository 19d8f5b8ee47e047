#include <processgroup.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace ZB::FrameManager
{

namespace
{

/// From /proc/PID/stat: "PID (NAME) STATE PARENT GROUP …", where NAME may hold
/// blanks and brackets.
bool isLivingMember(const std::filesystem::path& stat, pid_t group)
{
  std::ifstream file(stat);
  std::string line;
  if (!std::getline(file, line))
    return false;
  const auto name = line.rfind(')');
  if (name == std::string::npos)
    return false;
  std::istringstream rest(line.substr(name + 1));
  char state = 0;
  pid_t parent = 0;
  pid_t memberOf = 0;
  rest >> state >> parent >> memberOf;
  return rest && memberOf == group && state != 'Z' && state != 'X';
}

} // namespace

void signalGroup(pid_t group, int signal) { ::kill(-group, signal); }

bool groupLives(pid_t group)
{
  if (::kill(-group, 0) != 0 && errno == ESRCH)
    return false;
  // What is left may be zombies that nobody collects, as in a container without an init.
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error))
  {
    const auto name = entry->path().filename().string();
    if (std::all_of(name.begin(), name.end(), [](unsigned char character) { return std::isdigit(character); }) &&
        isLivingMember(entry->path() / "stat", group))
      return true;
  }
  return false;
}

} // namespace ZB::FrameManager
