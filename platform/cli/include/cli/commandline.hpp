#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Tarvik
{

/// What `tarvik` exits with.
enum class ExitCode
{
  Success = 0,
  Refused = 1, ///< the host, or the command itself, refused or failed
  WrongUsage = 2,
  NoHost = 3 ///< there is no host to talk to, or the connection to it ended
};

/// Carries out one command line of `tarvik`, without the program's name.
///
/// Results go to `out`. An error is one line on `error` that says what to do
/// next, and a code other than Success; nothing is thrown. Blocks until the
/// command has ended. The commands `run` and `watch` take SIGINT and SIGTERM
/// of the whole process for as long as they last, which needs a process in
/// which no other thread takes them.
ExitCode runCommandLine(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& error);

} // namespace Tarvik
