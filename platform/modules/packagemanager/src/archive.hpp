#pragma once

#include <cstdint>
#include <filesystem>

namespace ZB
{

/// How much an archive may unpack to, folders and links included.
struct UnpackLimits
{
  std::uintmax_t bytes = std::uintmax_t(1) << 30;
  std::uintmax_t entries = 100000;
};

/// Unpacks a zip archive into the existing, empty folder `target`; executable
/// bits are kept. Nothing is written outside of it, whatever the archive
/// holds; links are made as they are, for checkTree() to judge. Throws a
/// PackageError that names the entry at fault: outside the target, encrypted,
/// special, given twice, damaged, or beyond the limits; filesystem_error for
/// what cannot be written. What has been unpacked until then stays.
void unpackArchive(const std::filesystem::path& archive, const std::filesystem::path& target, const UnpackLimits& limits);

} // namespace ZB
