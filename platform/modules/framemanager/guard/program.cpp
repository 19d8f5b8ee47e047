#include "program.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace ZB::FrameManager
{

namespace
{

/// Like execvp(), which would hand a file of no known format to a shell.
/// Returns only when it has failed, with the reason in errno.
void execute(char* const* words)
{
  const std::string program = words[0];
  if (program.find('/') != std::string::npos)
  {
    ::execve(program.c_str(), words, environ);
    return;
  }
  const char* const variable = std::getenv("PATH");
  const std::string path = variable ? variable : "/bin:/usr/bin";
  bool denied = false;
  for (std::size_t begin = 0; begin <= path.size();)
  {
    const auto end = std::min(path.find(':', begin), path.size());
    const auto directory = path.substr(begin, end - begin);
    ::execve((directory.empty() ? program : directory + "/" + program).c_str(), words, environ);
    denied = denied || errno == EACCES;
    if (errno != EACCES && errno != ENOENT && errno != ENOTDIR)
      return;
    begin = end + 1;
  }
  errno = denied ? EACCES : ENOENT;
}

} // namespace

Program startProgram(const char* directory, char* const* words)
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    return {-1, -1, errno};
  const pid_t guard = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0)
  {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != guard) // it went before it could take this one along
      ::_exit(127);
    if (::chdir(directory) == 0)
    {
      sigset_t none;
      ::sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      execute(words);
    }
    const int error = errno;
    [[maybe_unused]] const auto written = ::write(ends[1], &error, sizeof error);
    ::_exit(127);
  }
  const int error = errno;
  ::close(ends[1]);
  if (pid < 0)
  {
    ::close(ends[0]);
    return {-1, -1, error};
  }
  ::setpgid(pid, pid); // whoever comes first: a signal to the group needs it
  return {pid, ends[0], 0};
}

int startError(const Program& program)
{
  int error = 0;
  return ::read(program.report, &error, sizeof error) == sizeof error ? error : 0;
}

} // namespace ZB::FrameManager
