#include <packagestore.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include <packages/manifest.hpp>
#include <packages/packageerror.hpp>
#include <packages/packagetree.hpp>
#include <storage/durablefile.hpp>
#include <vu/log.hpp>
#include <vu/text.hpp>

namespace ZB
{

namespace fs = std::filesystem;
using packages::PackageError;
using vu::inQuotes;

namespace
{

constexpr const char* stagingPrefix = ".staging-";
constexpr const char* removedPrefix = ".removed-";
constexpr std::string_view replacedPrefix = ".replaced-";

bool isThere(const fs::path& path) { return fs::symlink_status(path).type() != fs::file_type::not_found; }

std::string readInstaller(const fs::path& folder)
{
  auto text = storage::readFile(folder / packages::installerFile, 4096);
  if (text.ends_with('\n'))
    text.pop_back();
  if (text.empty() || text == systemInstaller)
    throw PackageError(std::string("the file ") + packages::installerFile + " names no installer");
  return text;
}

} // namespace

HiddenFolder::~HiddenFolder()
{
  if (_path.empty())
    return;
  std::error_code error;
  fs::remove_all(_path, error);
  if (error)
    vu::log::warning("packagemanager", "HiddenFolder",
                     inQuotes(_path.string()) + " could not be deleted, the next start will try again: " + error.message());
}

PackageStore::PackageStore(fs::path directory) : _directory(std::move(directory))
{
  fs::create_directories(_directory);
  recover();
}

void PackageStore::recover()
{
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(_directory))
    entries.push_back(entry.path());
  for (const auto& entry : entries)
  {
    const auto name = entry.filename().string();
    if (name.starts_with(replacedPrefix) && !isThere(_directory / name.substr(replacedPrefix.size())))
    {
      fs::rename(entry, _directory / name.substr(replacedPrefix.size()));
      storage::syncDirectory(_directory);
      vu::log::info("packagemanager", "PackageStore::recover",
                    "put back the package " + inQuotes(name.substr(replacedPrefix.size())) + ", whose replacement was interrupted");
    }
    else if (name.starts_with(stagingPrefix) || name.starts_with(removedPrefix) || name.starts_with(replacedPrefix))
    {
      const HiddenFolder leftOver(entry);
      vu::log::info("packagemanager", "PackageStore::recover", "clearing what an interrupted change has left: " + inQuotes(entry.string()));
    }
  }
}

std::vector<vu::PackageInfo> PackageStore::load() const
{
  std::vector<vu::PackageInfo> packages;
  for (const auto& entry : fs::directory_iterator(_directory))
  {
    const auto name = entry.path().filename().string();
    if (name.starts_with('.'))
      continue;
    try
    {
      if (entry.symlink_status().type() != fs::file_type::directory)
        throw PackageError("this is no folder");
      auto package = packages::readManifest(entry.path());
      if (package.uuid != name)
        throw PackageError("the folder does not bear the name of its package, " + inQuotes(package.uuid));
      package.installer = readInstaller(entry.path());
      package.path = entry.path().string();
      packages.emplace_back(std::move(package));
    }
    catch (const std::exception& error)
    {
      vu::log::error("packagemanager", "PackageStore::load",
                     "the package in " + inQuotes(entry.path().string()) + " is damaged and left out: " + error.what());
    }
  }
  return packages;
}

/// A package is moved to a name, not into a folder that would have to be made:
/// a full disk has no room for one.
fs::path PackageStore::removedName() const
{
  static std::atomic<std::uint64_t> number = std::random_device{}();
  auto name = _directory / (removedPrefix + std::to_string(++number));
  while (isThere(name))
    name = _directory / (removedPrefix + std::to_string(++number));
  return name;
}

fs::path PackageStore::makeHiddenFolder(const char* prefix) const
{
  auto name = (_directory / (std::string(prefix) + "XXXXXX")).string();
  if (!::mkdtemp(name.data()))
    throw fs::filesystem_error("cannot make a folder", _directory, std::error_code(errno, std::generic_category()));
  return name;
}

StagedPackage PackageStore::stage(const fs::path& source, const std::string& installer, const UnpackLimits& limits) const
{
  StagedPackage staged{unpackedOrCopied(source, limits), {}};
  const auto& folder = staged.folder.path();
  staged.info = recordOf(folder, installer);
  storage::writeFileDurably(folder / packages::installerFile, installer + '\n');
  storage::syncTree(folder);
  return staged;
}

InspectedPackage PackageStore::inspect(const fs::path& source, const UnpackLimits& limits) const
{
  const auto inspected = [this](const fs::path& folder)
  {
    auto info = recordOf(folder, {});
    return InspectedPackage{info, packages::projectFaults(folder, info)};
  };
  if (!fs::is_directory(source))
    return inspected(unpackedOrCopied(source, limits).path());
  refuseOwnSurroundings(source);
  return inspected(source);
}

HiddenFolder PackageStore::unpackedOrCopied(const fs::path& source, const UnpackLimits& limits) const
{
  const auto type = fs::status(source).type();
  if (type == fs::file_type::not_found)
    throw PackageError("there is no such file or directory");
  if (type != fs::file_type::directory && type != fs::file_type::regular)
    throw PackageError("this is neither a directory nor a zip archive");
  if (type == fs::file_type::directory)
  {
    packages::readManifest(source); // before the contents of a wrong directory are copied
    refuseOwnSurroundings(source);
  }
  HiddenFolder folder(makeHiddenFolder(stagingPrefix));
  if (type == fs::file_type::directory)
    packages::copyTree(source, folder.path());
  else
    unpackArchive(source, folder.path(), limits);
  fs::permissions(folder.path(), fs::perms(0755));
  return folder;
}

/// A directory that holds the store would be copied into itself.
void PackageStore::refuseOwnSurroundings(const fs::path& source) const
{
  const auto inner = fs::canonical(_directory);
  const auto outer = fs::canonical(source);
  if (std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end())
    throw PackageError("the directory holds the folder of the installed packages, " + inQuotes(inner.string()));
}

vu::PackageInfo PackageStore::recordOf(const fs::path& folder, const std::string& installer) const
{
  packages::checkTree(folder);
  auto package = packages::readManifest(folder);
  package.installer = installer;
  package.path = (_directory / package.uuid).string();
  return vu::PackageInfo(std::move(package));
}

HiddenFolder PackageStore::install(StagedPackage& staged)
{
  const auto uuid = staged.info.uuid();
  const auto place = _directory / uuid;
  const auto aside = _directory / (std::string(replacedPrefix) + uuid);
  const bool replaces = isThere(place);
  if (replaces)
    fs::rename(place, aside);
  bool arrived = false;
  try
  {
    fs::rename(staged.folder.path(), place);
    arrived = true;
    storage::syncDirectory(_directory);
  }
  catch (...)
  {
    std::error_code ignored; // what cannot be taken back now, the next start does
    if (arrived)
      fs::rename(place, staged.folder.path(), ignored);
    if (replaces)
      fs::rename(aside, place, ignored);
    throw;
  }
  staged.folder.release();
  if (!replaces)
    return {};
  // A name of its own, since a failed deletion must not be taken for an old
  // package that has to be put back.
  try
  {
    auto removed = removedName();
    fs::rename(aside, removed);
    return HiddenFolder(std::move(removed));
  }
  catch (const fs::filesystem_error&)
  {
    return HiddenFolder(aside);
  }
}

HiddenFolder PackageStore::remove(const std::string& uuid)
{
  const auto place = _directory / uuid;
  const auto name = removedName();
  std::error_code error;
  fs::rename(place, name, error);
  if (error && !isThere(place))
  {
    vu::log::warning("packagemanager", "PackageStore::remove",
                     "the folder of the package to be removed has gone already: " + inQuotes(place.string()));
    return {};
  }
  if (error)
    throw fs::filesystem_error("cannot move the package aside", place, error);
  HiddenFolder removed(name);
  try
  {
    storage::syncDirectory(_directory);
  }
  catch (...)
  {
    std::error_code ignored;
    fs::rename(removed.release(), place, ignored);
    throw;
  }
  return removed;
}

} // namespace ZB
