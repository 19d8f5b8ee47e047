#pragma once

#include <filesystem>
#include <string>

namespace packages
{

/// The longest project file that is read, in bytes.
inline constexpr std::size_t projectFileLimit = 4 * 1024 * 1024;

struct ProjectFile
{
  std::filesystem::path path; ///< absolute, without links
  std::string text;
};

/// Reads a package's project file whole. Throws a PackageError that names
/// directory or file: for a directory that is empty, relative or missing, a
/// file that is absolute, missing, no regular file or too long, and for one
/// that lies outside the directory, through ".." or a link.
ProjectFile loadProjectFile(const std::string& packageDirectory, const std::string& projectFile);

} // namespace packages
