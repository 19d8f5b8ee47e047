#pragma once

#include <filesystem>

#include <vu/packageinfo.hpp>

namespace packages
{

inline constexpr const char* manifestFile = "manifest.xml";
inline constexpr const char* projectFile = "behavior.xar";

/// Reads and checks the manifest of the package in `directory`, and that every
/// behavior's project file is there; what stands in those is the frame
/// manager's business. `installer` and `path` of the result are left empty.
/// Throws a PackageError with line and offset of the fault.
vu::PackageInfo::Data readManifest(const std::filesystem::path& directory);

} // namespace packages
