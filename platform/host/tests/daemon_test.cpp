#include "fixture.hpp"

#include <csignal>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vu/remotesession.hpp>

extern char** environ;

using HostTest::RootFixture;

namespace
{

constexpr int patienceMs = 60000;

/// The daemon as a process of its own, ended with the test.
class Daemon
{
public:
  explicit Daemon(std::vector<std::string> arguments)
  {
    arguments.insert(arguments.begin(), TARVIKD);
    std::vector<char*> argv;
    for (auto& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    int out[2];
    int err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
      throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    ::posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    const int failed = ::posix_spawn(&_pid, TARVIKD, &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    _out = out[0];
    _err = err[0];
    if (failed)
      throw std::runtime_error("cannot start " TARVIKD);
  }

  ~Daemon()
  {
    if (_pid > 0)
    {
      ::kill(_pid, SIGKILL);
      ::waitpid(_pid, nullptr, 0);
    }
    ::close(_out);
    ::close(_err);
  }

  /// One line of the output; what came so far when there is none in time.
  std::string line() { return readUntil(_out, '\n'); }
  std::string errors() { return readUntil(_err, '\0'); }
  /// What is left of the output, after the end.
  std::string rest() { return readUntil(_out, '\0'); }

  void signal(int number) const { ::kill(_pid, number); }

  /// Drains the log on the way, so that the daemon never waits for the test.
  int wait()
  {
    errorText += errors();
    int status = 0;
    ::waitpid(_pid, &status, 0);
    _pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  std::string errorText;

private:
  static std::string readUntil(int descriptor, char end)
  {
    std::string text;
    pollfd poll{descriptor, POLLIN, 0};
    char byte = 0;
    while (::poll(&poll, 1, patienceMs) == 1 && ::read(descriptor, &byte, 1) == 1 && byte != end)
      text += byte;
    return text;
  }

  pid_t _pid = -1;
  int _out = -1;
  int _err = -1;
};

} // namespace

class DaemonProcess : public RootFixture
{
protected:
  std::vector<std::string> arguments(std::initializer_list<std::string> more = {}) const
  {
    std::vector<std::string> all{"--root", root.string(), "--listen", "127.0.0.1:0", "--log-level", "warning"};
    all.insert(all.end(), more);
    return all;
  }
};

TEST_F(DaemonProcess, SaysWhenItIsReadyAndEndsInOrderOnASignal)
{
  for (const int number : {SIGTERM, SIGINT})
  {
    SCOPED_TRACE(number);
    Daemon daemon(arguments());
    const auto line = daemon.line();
    EXPECT_EQ(line, "tarvikd ready: " + read("run/endpoint") + "/");
    {
      vu::RemoteSession session({read("run/endpoint"), read("run/token"), std::chrono::milliseconds(10000), {}});
      EXPECT_EQ(session.services().size(), 5u);
    }
    daemon.signal(number);
    EXPECT_EQ(daemon.wait(), 0) << daemon.errorText;
    EXPECT_EQ(daemon.rest(), "") << "one line and no more";
    EXPECT_FALSE(exists("run/endpoint"));
    EXPECT_FALSE(exists("run/token"));
  }
}

TEST_F(DaemonProcess, RootOfAKilledHostIsTakenOver)
{
  {
    Daemon killed(arguments());
    killed.line();
    killed.signal(SIGKILL);
    killed.wait();
  }
  EXPECT_TRUE(exists("run/endpoint"));
  Daemon daemon(arguments());
  const auto line = daemon.line();
  EXPECT_EQ(line, "tarvikd ready: " + read("run/endpoint") + "/");
}

TEST_F(DaemonProcess, FailedStartSaysWhyOnStderrAndNothingOnStdout)
{
  Daemon first(arguments());
  first.line();
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {arguments(), "another host runs on the root"},
      {{"--root", root.string() + "/other", "--listen", "127.0.0.1:0", "--module", "/nonexistent/libguest.so"}, "/nonexistent/libguest.so"},
      {{"--root", "/proc/nowhere"}, "/proc/nowhere"},
      {{"--nonsense"}, "--nonsense"},
  };
  for (const auto& [options, named] : cases)
  {
    SCOPED_TRACE(named);
    Daemon daemon(options);
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_NE(daemon.errorText.find(named), std::string::npos) << daemon.errorText;
    EXPECT_EQ(daemon.rest(), "");
  }
}
