#pragma once

#include <filesystem>
#include <vector>

#include <packages/packageerror.hpp>
#include <packages/rights.hpp>
#include <vu/packageinfo.hpp>

namespace packages
{

inline constexpr const char* manifestFile = "manifest.xml";
inline constexpr const char* projectFile = "behavior.xar";

/// Reads and checks the manifest of the package in `directory`, and that every
/// behavior's project file is there; what stands in those is told by
/// projectFaults(). `installer` and `path` of the result are left empty.
/// Throws a PackageError with line and offset of the fault.
vu::PackageInfo::Data readManifest(const std::filesystem::path& directory);

/// What the behaviors of the package in `directory` may call; whatever else its
/// manifest says is left unread. One without a manifest asks for nothing; one
/// whose rights cannot be read is a PackageError.
Rights readRights(const std::filesystem::path& directory);

/// The first fault in each project of the package in `directory`, which is
/// absolute.
std::vector<Fault> projectFaults(const std::filesystem::path& directory, const vu::PackageInfo& package);

/// [{file, line, text}]
vu::Value toValue(const std::vector<Fault>& faults);

} // namespace packages
