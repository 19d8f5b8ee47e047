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
};

/// The processes that come from `ancestor`, as /proc shows them at this
/// moment; they may have forked or ended since.
std::vector<Process> descendantsOf(pid_t ancestor);

} // namespace ZB::FrameManager
