#include <testing/filefaults.hpp>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <type_traits>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport
{

namespace
{

std::atomic<bool> armed = false;
std::atomic<int> operations = 0;
std::atomic<int> target = 0;
std::atomic<Fault> fault = Fault::Error;

std::vector<std::string> recorded;
bool recording = false; ///< cleared while a call is being noted, which may make others

std::string pathOf(const char* path) { return path; }

template <typename T> std::string pathOf(T) { return {}; }

/// Of a descriptor, which is what the first argument is unless it is a path.
std::string pathOf(int file)
{
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored);
}

template <typename First, typename... Others> void record(const char* name, First first, Others... others)
{
  recording = false;
  std::string line = std::string(name) + " " + pathOf(first);
  if constexpr (std::is_same_v<First, const char*>)
    ((line += std::is_same_v<Others, const char*> ? " " + pathOf(others) : ""), ...);
  recorded.push_back(line);
  recording = true;
}

enum class Space
{
  Needed,
  NotNeeded
};

void killThisProcess()
{
  ::kill(::getpid(), SIGKILL);
  while (true)
    ::pause();
}

/// Does the C library's operation, or what has been injected in its place.
template <typename F, typename... Arguments> auto operate(F*, const char* name, Space space, Arguments... arguments)
{
  const auto next = reinterpret_cast<F*>(::dlsym(RTLD_NEXT, name));
  using Result = decltype(next(arguments...));
  if (recording)
    record(name, arguments...);
  if (!armed)
    return next(arguments...);
  const int number = ++operations;
  const auto injected = fault.load();
  const bool fails =
      injected == Fault::DiskFull ? number >= target && space == Space::Needed : injected == Fault::Error && number == target;
  if (fails)
  {
    errno = injected == Fault::DiskFull ? ENOSPC : EIO;
    if constexpr (std::is_pointer_v<Result>)
      return Result(nullptr);
    else
      return Result(-1);
  }
  if (number == target && injected == Fault::KillBefore)
    killThisProcess();
  const auto result = next(arguments...);
  if (number == target && injected == Fault::KillAfter)
    killThisProcess();
  return result;
}

} // namespace

Injection::Injection(Fault injected, int operation)
{
  operations = 0;
  target = operation;
  fault = injected;
  armed = true;
}

Injection::~Injection() { armed = false; }

bool Injection::happened() const { return operations >= target; }

std::vector<std::string> operationsOf(const std::function<void()>& action)
{
  recorded.clear();
  struct Recording
  {
    Recording() { recording = true; }
    ~Recording() { recording = false; }
  };
  {
    const Recording until;
    action();
  }
  return recorded;
}

bool isKilledAt(Fault injected, int operation, const std::function<void()>& action)
{
  const auto child = ::fork();
  if (child < 0)
    throw std::runtime_error("no process for the test");
  if (child == 0)
  {
    int status = 0;
    try
    {
      const Injection injection(injected, operation);
      action();
    }
    catch (const std::exception& error)
    {
      std::fprintf(stderr, "%s\n", error.what());
      status = 1;
    }
    ::_exit(status);
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child || (WIFEXITED(status) && WEXITSTATUS(status) != 0))
    throw std::runtime_error("the process to be killed failed by itself");
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

Attempt tryWith(Fault injected, int operation, const std::function<void()>& action)
{
  if (injected == Fault::KillBefore || injected == Fault::KillAfter)
    return {isKilledAt(injected, operation, action), {}};
  const Injection injection(injected, operation);
  std::string failure;
  try
  {
    action();
  }
  catch (const std::exception& error)
  {
    failure = error.what();
  }
  return {injection.happened(), failure};
}

} // namespace TestSupport

using TestSupport::operate;
using TestSupport::Space;

extern "C"
{

  // clang-format off
int rename(const char* from, const char* to) noexcept { return operate(&::rename, "rename", Space::NotNeeded, from, to); }
int remove(const char* path) noexcept { return operate(&::remove, "remove", Space::NotNeeded, path); }
int unlink(const char* path) noexcept { return operate(&::unlink, "unlink", Space::NotNeeded, path); }
int unlinkat(int folder, const char* path, int flags) noexcept { return operate(&::unlinkat, "unlinkat", Space::NotNeeded, folder, path, flags); }
int rmdir(const char* path) noexcept { return operate(&::rmdir, "rmdir", Space::NotNeeded, path); }
int fsync(int file) { return operate(&::fsync, "fsync", Space::NotNeeded, file); }
int fchmod(int file, mode_t mode) noexcept { return operate(&::fchmod, "fchmod", Space::NotNeeded, file, mode); }
int fchmodat(int folder, const char* path, mode_t mode, int flags) noexcept { return operate(&::fchmodat, "fchmodat", Space::NotNeeded, folder, path, mode, flags); }
int mkdir(const char* path, mode_t mode) noexcept { return operate(&::mkdir, "mkdir", Space::Needed, path, mode); }
char* mkdtemp(char* path) noexcept { return operate(&::mkdtemp, "mkdtemp", Space::Needed, path); }
int mkostemps(char* path, int suffix, int flags) { return operate(&::mkostemps, "mkostemps", Space::Needed, path, suffix, flags); }
int symlink(const char* to, const char* path) noexcept { return operate(&::symlink, "symlink", Space::Needed, to, path); }
FILE* fopen(const char* path, const char* mode) { return operate(&::fopen, "fopen", Space::Needed, path, mode); }
FILE* fopen64(const char* path, const char* mode) { return operate(&::fopen64, "fopen64", Space::Needed, path, mode); }
ssize_t sendfile(int to, int from, off_t* offset, size_t size) noexcept { return operate(&::sendfile, "sendfile", Space::Needed, to, from, offset, size); }
ssize_t writev(int file, const iovec* parts, int count) { return operate(&::writev, "writev", Space::Needed, file, parts, count); }
  // clang-format on

  ssize_t write(int file, const void* bytes, size_t size)
  {
    if (file <= STDERR_FILENO)
      return reinterpret_cast<decltype(&::write)>(::dlsym(RTLD_NEXT, "write"))(file, bytes, size);
    return operate(&::write, "write", Space::Needed, file, bytes, size);
  }

  int open(const char* path, int flags, ...)
  {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : mode_t(0);
    va_end(rest);
    if ((flags & (O_CREAT | O_TRUNC)) == 0)
      return reinterpret_cast<decltype(&::open)>(::dlsym(RTLD_NEXT, "open"))(path, flags);
    return operate(&::open, "open", Space::Needed, path, flags, mode);
  }
}
