#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

#include <filedescriptor.hpp>

namespace ZB::FrameManager
{

/// A program that runs under a guard of its own (see guardprotocol.hpp), and
/// what the guard's starter holds of both, as few descriptors as can be. Whoever
/// starts it has to collect the guard, which ends when nothing is left of the
/// program.
struct ChildProcess
{
  pid_t guard = 0;
  FileDescriptor control; ///< the socket to the guard; at its end when that has gone
  FileDescriptor output;
  FileDescriptor errors;
};

/// Starts `words` in `directory` (which a program with a slash in its name is
/// relative to; others are looked for in PATH): standard input empty, nothing
/// else open but output and errors, signals as a new process expects them.
/// What the program leaves behind gets `grace` between SIGTERM and SIGKILL.
/// Does not wait for the program to be found, which the guard reports. Throws
/// std::runtime_error that names the program and the reason.
ChildProcess startProcess(const std::filesystem::path& guard, std::chrono::milliseconds grace, const std::vector<std::string>& words,
                          const std::filesystem::path& directory, const std::vector<std::string>& environment);

/// Why a program could not be started in `directory`, for a person.
std::string cannotStart(const std::string& program, int error, const std::filesystem::path& directory);

} // namespace ZB::FrameManager
