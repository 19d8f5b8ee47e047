#include <childprocess.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ZB::FrameManager
{

namespace
{

struct FileActions
{
  FileActions() { ::posix_spawn_file_actions_init(&value); }
  ~FileActions() { ::posix_spawn_file_actions_destroy(&value); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  posix_spawn_file_actions_t value;
};

struct Attributes
{
  Attributes() { ::posix_spawnattr_init(&value); }
  ~Attributes() { ::posix_spawnattr_destroy(&value); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  posix_spawnattr_t value;
};

struct Pipe
{
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

[[noreturn]] void cannotStart(const std::string& program, int error, const std::string& detail = {})
{
  throw std::runtime_error("cannot start " + program + ": " + std::generic_category().message(error) + detail);
}

Pipe makePipe(const std::string& program)
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    cannotStart(program, errno);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::vector<char*> pointers(const std::vector<std::string>& texts)
{
  std::vector<char*> result;
  for (const auto& text : texts)
    result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

} // namespace

ChildProcess startProcess(const std::vector<std::string>& words, const std::filesystem::path& directory,
                          const std::vector<std::string>& environment)
{
  const auto& program = words.front();
  auto output = makePipe(program);
  auto errors = makePipe(program);

  FileActions actions;
  ::posix_spawn_file_actions_addopen(&actions.value, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions.value, output.writeEnd.get(), STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions.value, errors.writeEnd.get(), STDERR_FILENO);
  ::posix_spawn_file_actions_addchdir_np(&actions.value, directory.c_str());
  ::posix_spawn_file_actions_addclosefrom_np(&actions.value, STDERR_FILENO + 1);

  Attributes attributes;
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setpgroup(&attributes.value, 0);
  ::posix_spawnattr_setsigmask(&attributes.value, &none);
  ::posix_spawnattr_setsigdefault(&attributes.value, &all);
  ::posix_spawnattr_setflags(&attributes.value, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  ChildProcess child;
  const int error =
      ::posix_spawnp(&child.pid, program.c_str(), &actions.value, &attributes.value, pointers(words).data(), pointers(environment).data());
  if (error != 0)
  {
    std::error_code ignored;
    cannotStart(program, error,
                std::filesystem::is_directory(directory, ignored) ? "" : " (the directory " + directory.string() + " has gone)");
  }
  // It has not been collected, so that its number still is its own. (The C
  // library's pidfd_open() cannot be linked from C++ in glibc 2.36.)
  child.ended = FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child.pid, 0)));
  if (!child.ended)
  {
    const int reason = errno;
    ::kill(-child.pid, SIGKILL);
    ::waitpid(child.pid, nullptr, 0);
    cannotStart(program, reason);
  }
  child.output = std::move(output.readEnd);
  child.errors = std::move(errors.readEnd);
  return child;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& values)
{
  auto result = values;
  for (char** entry = environ; entry && *entry; ++entry)
  {
    const std::string text = *entry;
    const auto name = text.substr(0, text.find('=') + 1);
    if (std::none_of(values.begin(), values.end(), [&name](const auto& value) { return value.compare(0, name.size(), name) == 0; }))
      result.push_back(text);
  }
  return result;
}

} // namespace ZB::FrameManager
