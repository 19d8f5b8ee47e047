#pragma once

#include <sys/types.h>

namespace ZB::FrameManager
{

/// Sends a signal to every process of the group; a group that has gone is no error.
void signalGroup(pid_t group, int signal);

/// Whether a process of the group lives; one that has ended and waits for its
/// parent (a zombie) does not. The group's number stays taken as long as
/// anything of it is left, so that it cannot mean another group meanwhile.
bool groupLives(pid_t group);

} // namespace ZB::FrameManager
