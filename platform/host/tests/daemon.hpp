#pragma once

#include <csignal>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace HostTest
{

inline constexpr int patienceMs = 60000;

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

} // namespace HostTest
