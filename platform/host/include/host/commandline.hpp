#pragma once

#include <optional>
#include <ostream>

#include <host/host.hpp>

namespace Tarvik
{

struct CommandLine
{
  Host::Options host;
  vu::log::Level logLevel = vu::log::Level::Info;
};

/// Reads the daemon's command line and the file that --config names; what the
/// command line says goes first. None when the process is to end at once with
/// `exitCode`: help was asked for, or a fault has been written to `err`.
std::optional<CommandLine> parseCommandLine(int argc, const char* const* argv, std::ostream& out, std::ostream& err, int& exitCode);

} // namespace Tarvik
