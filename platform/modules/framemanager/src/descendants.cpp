#include <descendants.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace ZB::FrameManager
{

namespace
{

/// From "PID (NAME) STATE PARENT GROUP …", where NAME may hold blanks and
/// brackets; pid 0 for a process that has gone. What seems a zombie counts:
/// its first thread may have ended before the others.
Process readProcess(const char* pid)
{
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%.10s/stat", pid);
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0)
    return {};
  char text[256];
  const auto size = ::read(file, text, sizeof text - 1);
  ::close(file);
  text[std::max<ssize_t>(size, 0)] = 0;
  const char* const name = std::strrchr(text, ')');
  Process process;
  if (!name || std::sscanf(name + 1, " %c %d %d", &process.state, &process.parent, &process.group) != 3)
    return {};
  process.pid = std::atoi(pid);
  return process;
}

} // namespace

bool isHalted(pid_t pid) { return readProcess(std::to_string(pid).c_str()).state == 'T'; }

std::vector<Process> descendantsOf(pid_t ancestor)
{
  std::vector<Process> others;
  DIR* const directory = ::opendir("/proc");
  if (!directory)
    return {};
  while (const dirent* const entry = ::readdir(directory))
    if (entry->d_name[0] >= '1' && entry->d_name[0] <= '9')
      if (const auto process = readProcess(entry->d_name); process.pid != 0)
        others.push_back(process);
  ::closedir(directory);

  std::vector<Process> found;
  const auto takeChildren = [&](pid_t parent)
  {
    const auto children = std::partition(others.begin(), others.end(), [parent](const auto& process) { return process.parent != parent; });
    found.insert(found.end(), children, others.end());
    others.erase(children, others.end());
  };
  takeChildren(ancestor);
  for (std::size_t i = 0; i < found.size(); ++i)
    takeChildren(found[i].pid);
  return found;
}

void signalGroup(pid_t group, int signal)
{
  ::kill(-group, signal);
  ::kill(-group, SIGCONT);
}

void signalDescendants(pid_t guard, int signal, pid_t except)
{
  std::set<pid_t> groups{guard, except};
  for (const auto& process : descendantsOf(guard))
    if (process.group == guard)
      ::kill(process.pid, signal);
    else if (groups.insert(process.group).second)
      signalGroup(process.group, signal);
}

} // namespace ZB::FrameManager
