#pragma once

namespace Tarvik
{

/// Makes a process independent of who has started it and how, before it has
/// threads and opens files: a reader that goes away does not end it, no file
/// takes the place of a closed standard stream, which would be written to, as
/// many files can be open as the system allows, and files that it makes are for
/// its user alone. Large blocks of memory go back when they are free. Programs that it starts get
/// what it was started with.
void prepareProcess();

/// False where whoever has started the process wants it to outlive the terminal.
bool endsOnHangup();

} // namespace Tarvik
