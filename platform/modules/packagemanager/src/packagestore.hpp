#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <archive.hpp>
#include <packages/packageerror.hpp>
#include <vu/packageinfo.hpp>

namespace ZB
{

/// Who installed what the platform itself brought; no client is called so.
inline constexpr const char* systemInstaller = "system";

/// A hidden folder of the store, which goes away with its handle.
class HiddenFolder
{
public:
  HiddenFolder() = default;
  explicit HiddenFolder(std::filesystem::path path) : _path(std::move(path)) {}
  HiddenFolder(HiddenFolder&& other) noexcept : _path(other.release()) {}
  HiddenFolder& operator=(HiddenFolder&& other) noexcept
  {
    _path.swap(other._path);
    return *this;
  }
  ~HiddenFolder();

  const std::filesystem::path& path() const { return _path; }
  /// The folder is not this handle's business any more.
  std::filesystem::path release() noexcept { return std::exchange(_path, {}); }

private:
  std::filesystem::path _path;
};

/// A package that has been checked and made durable, but stands aside still.
struct StagedPackage
{
  HiddenFolder folder;
  vu::PackageInfo info; ///< as it will be once installed
};

/// A package that has been looked at.
struct InspectedPackage
{
  vu::PackageInfo info;                ///< as it would be once installed
  std::vector<packages::Fault> faults; ///< of its projects
};

/// The folder in which user packages are installed, one subfolder per uuid:
/// the only record of what is installed.
///
/// Every change becomes visible by a rename, so that a crash leaves the old or
/// the new package, whole. What stands aside has a name with a leading dot,
/// which no uuid has: ".staging-*" a package to come, ".removed-*" one to be
/// deleted, ".replaced-UUID" the old package while the new one moves in.
///
/// stage() and inspect() may run at any time, install() and remove() one at a
/// time. Faults of a package are a PackageError, those of the file system a
/// filesystem_error.
class PackageStore
{
public:
  /// Makes the folder, clears what a crash has left, and puts an old package
  /// back whose replacement did not arrive.
  explicit PackageStore(std::filesystem::path directory);

  /// The sound packages; the others are logged as errors.
  std::vector<vu::PackageInfo> load() const;

  /// `source` is the directory of a package, or a zip archive of one.
  StagedPackage stage(const std::filesystem::path& source, const std::string& installer, const UnpackLimits& limits) const;

  /// What would come of `source`, without changing anything for good.
  InspectedPackage inspect(const std::filesystem::path& source, const UnpackLimits& limits) const;

  /// Moves the package in, in the place of one of the same uuid. A failure
  /// leaves everything as it was. The old package goes with the result.
  HiddenFolder install(StagedPackage& staged);

  /// The package goes with the result; nothing where its folder has vanished.
  HiddenFolder remove(const std::string& uuid);

private:
  void recover();
  std::filesystem::path removedName() const;
  std::filesystem::path makeHiddenFolder(const char* prefix) const;
  HiddenFolder unpackedOrCopied(const std::filesystem::path& source, const UnpackLimits& limits) const;
  void refuseOwnSurroundings(const std::filesystem::path& source) const;
  vu::PackageInfo recordOf(const std::filesystem::path& folder, const std::string& installer) const;

  const std::filesystem::path _directory;
};

} // namespace ZB
