#include <behaviormanager/catalogue.hpp>

#include <algorithm>
#include <optional>
#include <set>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/thread/lock_guard.hpp>

#include <behaviormanager/constants.hpp>
#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{

using Lock = boost::lock_guard<boost::mutex>;
namespace fs = boost::filesystem;

bool isSelected(const vu::PackageInfo& package, Catalogue::InstallerFlag flags)
{
  return (flags & (Catalogue::xIsSystemPackage(package) ? Catalogue::InstallerSystem : Catalogue::InstallerUser)) != 0;
}

std::optional<vu::BehaviorInfo> findBehavior(const vu::PackageInfo& package, const std::string& path)
{
  for (const auto& behavior : package.behaviors())
    if (behavior.path() == path)
      return behavior;
  return std::nullopt;
}

/// Every separator counts: "a//b" has an empty part.
std::vector<std::string> splitName(const std::string& name)
{
  std::vector<std::string> parts;
  boost::algorithm::split(parts, name, boost::algorithm::is_any_of("/"), boost::algorithm::token_compress_off);
  return parts;
}

std::string joinFrom(const std::vector<std::string>& parts, std::size_t first)
{
  return boost::algorithm::join(std::vector<std::string>(parts.begin() + static_cast<std::ptrdiff_t>(first), parts.end()), "/");
}

void store(std::string* output, const std::string& text)
{
  if (output)
    *output = text;
}

} // namespace

void Catalogue::fill(const std::function<std::vector<vu::PackageInfo>()>& source)
{
  const Lock lock(_mutex);
  std::vector<Package> packages;
  for (auto& info : source())
    packages.push_back({std::move(info), ++_lastInstallation});
  _packages.swap(packages);
}

Catalogue::Installation Catalogue::add(const vu::PackageInfo& package)
{
  const Lock lock(_mutex);
  for (const auto& known : _packages)
    if (known.info.uuid() == package.uuid())
      return noInstallation;
  _packages.push_back({package, ++_lastInstallation});
  return _lastInstallation;
}

bool Catalogue::remove(const std::string& uuid)
{
  const Lock lock(_mutex);
  const auto found = std::find_if(_packages.begin(), _packages.end(), [&](const Package& package) { return package.info.uuid() == uuid; });
  if (found == _packages.end())
    return false;
  _packages.erase(found);
  return true;
}

bool Catalogue::xIsSystemPackage(const vu::PackageInfo& package) { return package.installer() == systemPackage; }

std::vector<std::string> Catalogue::xGetBehaviorsInPackages(InstallerFlag flags) const
{
  std::vector<std::string> names;
  const Lock lock(_mutex);
  for (const auto& [package, installation] : _packages)
  {
    const auto behaviors = package.behaviors();
    if (behaviors.empty() || !isSelected(package, flags))
      continue;
    for (const auto& behavior : behaviors)
    {
      const auto path = behavior.path();
      names.push_back(path.empty() || path == "." ? package.uuid() : package.uuid() + "/" + path);
    }
  }
  return names;
}

std::string Catalogue::xResolveBehaviorName(const std::string& name, std::string* package, std::string* behavior) const
{
  const auto parts = splitName(name);
  InstallerFlag selection = InstallerAll;
  if (boost::algorithm::starts_with(name, systemBehaviorPrefix))
    selection = InstallerSystem;
  else if (boost::algorithm::starts_with(name, userBehaviorPrefix))
    selection = InstallerUser;
  const std::size_t first = selection == InstallerAll ? 0 : 1;
  if (first >= parts.size())
    return {};
  const auto& uuid = parts[first];
  auto relative = joinFrom(parts, first + 1);
  if (relative.empty())
    relative = ".";

  const Lock lock(_mutex);
  for (const auto& [info, installation] : _packages)
    if (isSelected(info, selection) && info.uuid() == uuid && findBehavior(info, relative))
    {
      store(package, uuid);
      store(behavior, relative);
      return uuid + "/" + relative;
    }

  // No package of that name: a path that is unique among the packages, taken
  // as it is, prefix and all.
  std::string foundPackage;
  std::string foundBehavior = ".";
  std::string result;
  for (const auto& [info, installation] : _packages)
  {
    if (!isSelected(info, selection))
      continue;
    for (const auto& candidate : info.behaviors())
    {
      if (candidate.path() != name)
        continue;
      if (!result.empty())
        throw makeError("xResolveBehaviorName", "Found several behaviors with the name \"" + name +
                                                    "\". Please specify the package uuid in which to find the behavior.");
      foundPackage = info.uuid();
      foundBehavior = candidate.path();
      result = foundPackage + "/" + foundBehavior;
    }
  }
  store(package, foundPackage);
  store(behavior, foundBehavior);
  return result;
}

std::string Catalogue::xFindBehavior(const std::string& name) const
{
  const auto parts = splitName(name);
  if (parts.size() < 2)
    return {};
  const auto relative = joinFrom(parts, 1);
  const Lock lock(_mutex);
  for (const auto& [info, installation] : _packages)
    if (info.uuid() == parts[0] && findBehavior(info, relative))
      return (fs::path(info.path()) / relative).string();
  return {};
}

std::string Catalogue::getPackageDir(const std::string& uuid, Installation* installation) const
{
  const Lock lock(_mutex);
  for (const auto& package : _packages)
    if (package.info.uuid() == uuid)
    {
      if (installation)
        *installation = package.installation;
      return fs::path(package.info.path()).string();
    }
  return {};
}

bool Catalogue::isBehaviorInstalled(const std::string& name) const
{
  const auto directory = xFindBehavior(xResolveBehaviorName(name));
  try
  {
    return fs::exists(fs::status(directory));
  }
  catch (const fs::filesystem_error& error)
  {
    vu::log::error(logCategory, "isBehaviorInstalled", error.what());
    return false;
  }
}

std::vector<std::string> Catalogue::getBehaviorTags(const std::string& name) const
{
  std::string uuid;
  std::string relative;
  if (!name.empty() && xResolveBehaviorName(name, &uuid, &relative).empty())
    return {};

  std::set<std::string> tags;
  const Lock lock(_mutex);
  for (const auto& [package, installation] : _packages)
  {
    if (!uuid.empty() && uuid != package.uuid())
      continue;
    for (const auto& behavior : package.behaviors())
    {
      if (!relative.empty() && relative != behavior.path())
        continue;
      for (const char* locale : {"en_US", "en"})
        for (const auto& tag : behavior.tags(locale))
          tags.insert(tag);
    }
  }
  return {tags.begin(), tags.end()};
}

std::vector<std::string> Catalogue::getBehaviorsByTag(const std::string& tag) const
{
  std::set<std::string> names;
  const Lock lock(_mutex);
  for (const auto& [package, installation] : _packages)
    for (const auto& behavior : package.behaviors())
    {
      // Unlike getBehaviorTags(), the locale "en" does not count here.
      const auto tags = behavior.tags("en_US");
      if (std::find(tags.begin(), tags.end(), tag) != tags.end())
        names.insert(package.uuid() + "/" + behavior.path());
    }
  return {names.begin(), names.end()};
}

std::string Catalogue::getBehaviorNature(const std::string& name) const
{
  if (name.empty())
    throw makeError("getBehaviorNature", "getBehaviorNature was called with an empty parameter.");
  std::string uuid;
  std::string relative;
  if (!xResolveBehaviorName(name, &uuid, &relative).empty())
  {
    const Lock lock(_mutex);
    for (const auto& [package, installation] : _packages)
      if (package.uuid() == uuid)
        if (const auto behavior = findBehavior(package, relative))
          return behavior->nature();
  }
  throw makeError("getBehaviorNature", name + " was not found");
}

} // namespace ZB::BehaviorManager
