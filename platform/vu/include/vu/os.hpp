#pragma once

#include <string>

namespace vu::os
{

/// The current user's home directory: $HOME, else the password database's,
/// else "/".
std::string home();

/// From now on, files that this process makes are for its user alone. Once,
/// before there are threads.
void restrictNewFiles();

/// The umask that this process was started with, which is for programs that it
/// starts; -1 where it was not changed, and they have it anyway.
int inheritedUmask();

} // namespace vu::os
