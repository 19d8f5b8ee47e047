#pragma once

#include <sys/types.h>

namespace ZB::FrameManager
{

/// A program that has been forked off; whether it could be executed is known
/// when it has ended.
struct Program
{
  pid_t pid = -1;  ///< -1: there was no process to be had, see `error`
  int report = -1; ///< a pipe: the errno of what could not be executed, or nothing
  int error = 0;
};

/// Starts `words`, which a null pointer ends, in `directory`, as the leader of
/// a process group of its own that is killed should this process be. A program
/// without a slash in its name is looked for in PATH.
Program startProgram(const char* directory, char* const* words);

/// The errno of a program that has ended without having been executed, else 0.
int startError(const Program& program);

} // namespace ZB::FrameManager
