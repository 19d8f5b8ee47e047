#pragma once

#include <vector>

#include <sys/types.h>

namespace ZB::FrameManager
{

struct Process
{
  pid_t pid = 0;
  pid_t parent = 0;
  pid_t group = 0;
  char state = 0; ///< as ps tells it
};

/// Whether a signal has halted a process.
bool isHalted(pid_t pid);

/// The processes that come from `ancestor`, as /proc shows them at this
/// moment; they may have forked or ended since.
std::vector<Process> descendantsOf(pid_t ancestor);

/// Signals the group, and has halted ones of it go on, which would not get it.
void signalGroup(pid_t group, int signal);

/// Signals all that comes from a guard but the group `except`. A group is
/// signalled as a whole, which no fork escapes; as a guard leads a session of
/// its own, only descendants can be in a descendant's group.
void signalDescendants(pid_t guard, int signal, pid_t except = 0);

} // namespace ZB::FrameManager
