#pragma once

#include <string>

#include <packages/project.hpp>

namespace packages
{

/// How deep steps may stand in each other, and values in event values and
/// arguments.
inline constexpr int projectDepthLimit = 64;
/// The longest time and time-out, in seconds.
inline constexpr double projectSecondsLimit = 1e9;
/// The highest count of a repeat.
inline constexpr std::uint64_t projectCountLimit = 1'000'000'000;

/// Reads a project whole (see loadProjectFile()). A fault is a
/// PackageError whose text begins with the file, the line and the offset
/// in bytes: "/p/hello/behavior.xar:12 (offset 345): …".
Project readProject(const std::string& packageDirectory, const std::string& projectFile);

/// The same from a text; `file` stands in the faults, `shortName` in the
/// steps' titles.
Project parseProject(const std::string& text, const std::string& file, const std::string& shortName);

} // namespace packages
