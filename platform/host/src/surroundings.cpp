#include <host/surroundings.hpp>

#include <csignal>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <vu/os.hpp>

namespace Tarvik
{

namespace
{

/// Bytes of a block that goes back to the system when it is free. Left to
/// itself, the C library raises this with every larger one that is freed, and
/// the process keeps what the largest messages have taken.
constexpr int largeBlock = 256 << 10;

} // namespace

void prepareProcess()
{
  ::mallopt(M_MMAP_THRESHOLD, largeBlock);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL); // ignored, it takes away the children that this process collects itself
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (::fcntl(stream, F_GETFD) < 0)
      ::open("/dev/null", O_RDWR); // takes the lowest number, which is this one
  vu::os::raiseFileLimit();
  vu::os::restrictNewFiles();
}

bool endsOnHangup()
{
  struct sigaction action = {};
  ::sigaction(SIGHUP, nullptr, &action);
  return action.sa_handler != SIG_IGN;
}

} // namespace Tarvik
