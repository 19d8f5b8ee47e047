#include <testing/process.hpp>

#include <array>
#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport
{

Process::Process(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment)
{
  std::map<std::string, std::string> variables = environment;
  for (char** entry = environ; *entry; ++entry)
  {
    const std::string text = *entry;
    const auto equals = text.find('=');
    variables.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  std::vector<std::string> entries;
  for (const auto& [name, value] : variables)
    entries.push_back(name + "=" + value);
  const auto pointers = [](const std::vector<std::string>& texts)
  {
    std::vector<char*> result;
    for (const auto& text : texts)
      result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
  };

  std::array<int, 2> out{};
  std::array<int, 2> error{};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(error.data(), O_CLOEXEC) != 0)
    throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error[1], STDERR_FILENO);
  const auto failure =
      posix_spawn(&_pid, arguments.front().c_str(), &actions, nullptr, pointers(arguments).data(), pointers(entries).data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  close(error[1]);
  if (failure != 0)
    throw std::runtime_error("cannot start " + arguments.front());
  _threads.emplace_back([this, descriptor = out[0]] { collect(descriptor, &Process::_output); });
  _threads.emplace_back([this, descriptor = error[0]] { collect(descriptor, &Process::_error); });
  _threads.emplace_back(
      [this]
      {
        int status = 0;
        // Waits first and reaps under the lock, so that signal() never meets a
        // process id that is no longer this process's.
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(_pid), &info, WEXITED | WNOWAIT);
        const std::lock_guard lock(_mutex);
        waitpid(_pid, &status, 0);
        _exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        _changed.notify_all();
      });
}

Process::~Process() { signal(SIGKILL); }

void Process::collect(int descriptor, std::string Process::*where)
{
  std::array<char, 4096> buffer{};
  ssize_t count = 0;
  while ((count = read(descriptor, buffer.data(), buffer.size())) > 0)
  {
    const std::lock_guard lock(_mutex);
    (this->*where).append(buffer.data(), static_cast<std::size_t>(count));
    _changed.notify_all();
  }
  close(descriptor);
  const std::lock_guard lock(_mutex);
  --_open;
  _changed.notify_all();
}

bool Process::waitFor(const std::string& text, std::string Process::*where)
{
  std::unique_lock lock(_mutex);
  const auto found = [&] { return (this->*where).find(text) != std::string::npos; };
  _changed.wait_for(lock, patience, [&] { return found() || _open == 0; });
  return found();
}

std::string Process::firstLine()
{
  waitForOutput("\n");
  const std::lock_guard lock(_mutex);
  return _output.substr(0, _output.find('\n'));
}

std::optional<int> Process::waitForEnd()
{
  std::unique_lock lock(_mutex);
  _changed.wait_for(lock, patience, [this] { return _exitCode && _open == 0; });
  return _exitCode;
}

void Process::signal(int number)
{
  const std::lock_guard lock(_mutex);
  if (!_exitCode)
    kill(_pid, number);
}

std::string Process::output() const
{
  const std::lock_guard lock(_mutex);
  return _output;
}

std::string Process::error() const
{
  const std::lock_guard lock(_mutex);
  return _error;
}

} // namespace TestSupport
