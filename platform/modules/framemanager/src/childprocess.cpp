#include <childprocess.hpp>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <guardprotocol.hpp>
#include <vu/os.hpp>

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

using Ends = std::array<FileDescriptor, 2>;

[[noreturn]] void fail(const std::string& program, int error)
{
  throw std::runtime_error("cannot start " + program + ": " + std::generic_category().message(error));
}

/// The second end is for writing.
Ends makePipe(const std::string& program)
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    fail(program, errno);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

Ends makeSockets(const std::string& program)
{
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    fail(program, errno);
  return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

std::vector<char*> pointers(const std::vector<std::string>& texts)
{
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (const auto& text : texts)
    result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

} // namespace

ChildProcess startProcess(const std::filesystem::path& guard, std::chrono::milliseconds grace, const std::vector<std::string>& words,
                          const std::filesystem::path& directory, const std::vector<std::string>& environment)
{
  const auto& program = words.front();
  auto output = makePipe(program);
  auto errors = makePipe(program);
  auto control = makeSockets(program);

  FileActions actions;
  ::posix_spawn_file_actions_addopen(&actions.value, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions.value, output[1].get(), STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions.value, errors[1].get(), STDERR_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions.value, control[1].get(), guardSocket);
  ::posix_spawn_file_actions_addclosefrom_np(&actions.value, guardSocket + 1);

  Attributes attributes;
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setsigmask(&attributes.value, &none);
  ::posix_spawnattr_setsigdefault(&attributes.value, &all);
  ::posix_spawnattr_setflags(&attributes.value, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<std::string> arguments{guard.filename().string(), std::to_string(grace.count()), std::to_string(vu::os::inheritedUmask()),
                                     std::to_string(vu::os::inheritedFileLimit()), directory.string()};
  arguments.insert(arguments.end(), words.begin(), words.end());

  // Nothing here touches what the program lies on, which may be a file system
  // that does not answer.
  ChildProcess child;
  if (const int error = ::posix_spawn(&child.guard, guard.c_str(), &actions.value, &attributes.value, pointers(arguments).data(),
                                      pointers(environment).data());
      error == ENOENT || error == EACCES)
    throw std::runtime_error("cannot start " + program + ": " + guard.string() +
                             ", which guards programs, cannot be executed; is the installation whole?");
  else if (error != 0)
    fail(program, error);
  child.control = std::move(control[0]);
  child.output = std::move(output[0]);
  child.errors = std::move(errors[0]);
  return child;
}

std::string cannotStart(const std::string& program, int error, const std::filesystem::path& directory)
{
  std::error_code ignored;
  return "cannot start " + program + ": " + std::generic_category().message(error) +
         (std::filesystem::is_directory(directory, ignored) ? "" : " (the directory " + directory.string() + " has gone)");
}

} // namespace ZB::FrameManager
