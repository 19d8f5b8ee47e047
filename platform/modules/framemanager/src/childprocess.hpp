#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

#include <filedescriptor.hpp>

namespace ZB::FrameManager
{

/// A program that has been started, the leader of a process group of its own.
/// Whoever starts it has to collect it.
struct ChildProcess
{
  pid_t pid = 0;
  FileDescriptor ended; ///< a pidfd: readable when it has ended
  FileDescriptor output;
  FileDescriptor errors;
};

/// Starts `words` in `directory` (which a program with a slash in its name is
/// relative to; others are looked for in PATH): standard input empty, nothing
/// else open but output and errors, signals as a new process expects them.
/// Throws std::runtime_error that names the program and the reason.
ChildProcess startProcess(const std::vector<std::string>& words, const std::filesystem::path& directory,
                          const std::vector<std::string>& environment);

/// This process's environment with `values` ("NAME=value") in the place of
/// those of the same names.
std::vector<std::string> environmentWith(const std::vector<std::string>& values);

} // namespace ZB::FrameManager
