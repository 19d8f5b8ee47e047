#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <descendants.hpp>
#include <guardprotocol.hpp>

#include "program.hpp"

namespace ZB::FrameManager
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// What is left when the frame manager has gone: a host that was killed takes
/// its programs along, and need not be waited for by the next one.
constexpr milliseconds orphanGrace(1000);
/// Most programs are gone by then, so that nobody has to look for the others.
constexpr milliseconds sweepDelay(20);
constexpr milliseconds longestSweepDelay(320);

/// Runs one program and sees to it that nothing of it is left when it is over.
///
/// Whatever leaves the program's group or session still descends from this
/// process, to which orphans go (it is their subreaper); so there is nothing
/// left exactly when it has no children any more.
class Guard
{
public:
  explicit Guard(milliseconds grace) : _grace(grace) {}

  int run(const char* directory, char* const* words)
  {
    sigset_t all;
    sigset_t child;
    ::sigfillset(&all);
    ::sigemptyset(&child);
    ::sigaddset(&child, SIGCHLD);
    ::sigprocmask(SIG_SETMASK, &all, nullptr);
    const int signals = ::signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);
    ::fcntl(guardSocket, F_SETFD, FD_CLOEXEC);
    if (signals < 0 || ::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0)
      return report(GuardReport::Kind::CannotStart, errno);
    _program = startProgram(directory, words);
    if (_program.pid < 0)
      return report(GuardReport::Kind::CannotStart, _program.error);
    report(GuardReport::Kind::Started, _program.pid);

    while (collect())
    {
      signalWhatIsDue();
      pollfd polled[] = {{signals, POLLIN, 0}, {_socket, POLLIN, 0}};
      ::poll(polled, 2, untilNext());
      signalfd_siginfo news;
      while (::read(signals, &news, sizeof news) > 0)
        ;
      if (polled[1].revents != 0)
        listen();
    }
    return 0;
  }

private:
  static int report(GuardReport::Kind kind, int value)
  {
    const GuardReport message{kind, value};
    ::send(guardSocket, &message, sizeof message, MSG_NOSIGNAL);
    return 1;
  }

  /// Takes in who has ended; false when nobody is left.
  bool collect()
  {
    int status = 0;
    pid_t pid = 0;
    while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0)
      if (pid == _program.pid)
      {
        _program.pid = 0;
        if (const int error = startError(_program))
          report(GuardReport::Kind::CannotStart, error);
        else
          report(GuardReport::Kind::Ended, status);
        stop(_grace);
      }
      else if (_signal == SIGKILL)
        _sweepAt = Clock::now(); // its children are this process's now
    return pid == 0;
  }

  void listen()
  {
    std::int32_t limit = 0;
    const auto size = ::recv(_socket, &limit, sizeof limit, MSG_DONTWAIT);
    if (size == sizeof limit)
      stop(milliseconds(limit));
    else if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR))
    {
      _socket = -1; // not looked at any more
      stop(std::min(_grace, orphanGrace));
    }
  }

  /// Asks everything to end; a later call may only bring the kill forward.
  void stop(milliseconds limit)
  {
    const auto killAt = Clock::now() + limit;
    _killAt = _signal == 0 ? killAt : std::min(_killAt, killAt);
    if (_signal != 0)
      return;
    _signal = SIGTERM;
    _sweepAt = Clock::now();
    if (_program.pid != 0) // while it is not collected, the number is its own
    {
      _asked = _program.pid;
      signalGroup(_asked, _signal);
      *_sweepAt += sweepDelay;
    }
  }

  void signalWhatIsDue()
  {
    const auto now = Clock::now();
    if (_signal == SIGTERM && now >= _killAt)
    {
      _signal = SIGKILL;
      _asked = 0;
      _sweepAt = now;
    }
    if (!_sweepAt || now < *_sweepAt)
      return;
    signalDescendants(::getpid(), _signal, _asked);
    _sweepAt.reset();
    if (_signal == SIGKILL)
    {
      _sweepAt = now + _delay;
      _delay = std::min(2 * _delay, longestSweepDelay);
    }
  }

  int untilNext() const
  {
    auto next = Clock::time_point::max();
    if (_signal == SIGTERM)
      next = _killAt;
    if (_sweepAt)
      next = std::min(next, *_sweepAt);
    if (next == Clock::time_point::max())
      return -1;
    const auto left = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 3'600'000));
  }

  const milliseconds _grace;
  int _socket = guardSocket;
  Program _program; ///< pid 0 once it has been collected
  int _signal = 0;  ///< the last one sent, SIGTERM or SIGKILL
  pid_t _asked = 0; ///< the group that has it already
  Clock::time_point _killAt;
  std::optional<Clock::time_point> _sweepAt;
  milliseconds _delay = sweepDelay;
};

} // namespace

} // namespace ZB::FrameManager

/// tarvik-guard GRACE UMASK FILES DIRECTORY PROGRAM [ARGUMENT...], with the
/// socket of guardprotocol.hpp. A negative umask stays as it is.
int main(int argc, char** argv)
{
  if (argc < 6)
  {
    std::fputs("tarvik-guard belongs to the frame manager, which runs programs with it\n", stderr);
    return 2;
  }
  if (const int mask = std::atoi(argv[2]); mask >= 0)
    ::umask(static_cast<mode_t>(mask));
  rlimit files{};
  ::getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = std::strtoull(argv[3], nullptr, 10);
  ::setrlimit(RLIMIT_NOFILE, &files);
  return ZB::FrameManager::Guard(std::chrono::milliseconds(std::atol(argv[1]))).run(argv[4], argv + 5);
}
