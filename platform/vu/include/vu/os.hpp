#pragma once

#include <cstdint>
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

/// Lets this process have as many files open as it may, within reason, and
/// remembers what it was started with. Once, before there are threads.
void raiseFileLimit();

/// How many files a program that this process starts may have open: what this
/// process was started with, since programs do strange things with a high limit.
std::uint64_t inheritedFileLimit();

} // namespace vu::os
