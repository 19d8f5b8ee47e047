#pragma once

#include <filesystem>

namespace packages
{

/// The hidden file of an installed package that names its installer.
inline constexpr const char* installerFile = ".installer";

/// Copies all that stands in `source` into the existing folder `target`; links
/// stay links, executable bits are kept. Throws a PackageError for a device,
/// pipe or socket, filesystem_error for what cannot be read or written.
void copyTree(const std::filesystem::path& source, const std::filesystem::path& target);

/// Throws a PackageError that names the entry if there is anything but files,
/// folders and links, a link that leaves the package at any step of its way or
/// leads nowhere, or an installer's file.
void checkTree(const std::filesystem::path& directory);

} // namespace packages
