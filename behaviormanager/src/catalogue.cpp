#include <behaviormanager/behaviormanager.hpp>

#include <algorithm>

#include <boost/filesystem/path.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{

using Lock = boost::lock_guard<boost::mutex>;

void warnDeprecatedList(const char* method)
{
  vu::log::warning(logCategory, method,
                   std::string(method) + " is deprecated. "
                                         "Please use getInstalledBehaviors instead, or use the PackageManager "
                                         "to filter results by installer information.");
}

std::vector<std::string> withPrefix(const char* prefix, std::vector<std::string> names)
{
  for (auto& name : names)
    name.insert(0, prefix);
  return names;
}

auto findPackage(std::vector<vu::PackageInfo>& packages, const std::string& uuid)
{
  return std::find_if(packages.begin(), packages.end(), [&uuid](const vu::PackageInfo& package) { return package.uuid() == uuid; });
}

} // namespace

bool ZBBehaviorManager::xIsSystemPackage(const vu::PackageInfo& package) const { return package.installer() == systemPackage; }

std::vector<std::string> ZBBehaviorManager::xGetBehaviorsInPackages(InstallerFlag flags) const
{
  std::vector<std::string> names;
  const Lock lock(_packagesMutex);
  for (const auto& package : _packages)
  {
    const auto behaviors = package.behaviors();
    if (behaviors.empty() || (flags & (xIsSystemPackage(package) ? InstallerSystem : InstallerUser)) == 0)
      continue;
    for (const auto& behavior : behaviors)
    {
      const auto path = behavior.path();
      names.push_back(path.empty() || path == "." ? package.uuid() : package.uuid() + "/" + path);
    }
  }
  return names;
}

std::vector<std::string> ZBBehaviorManager::getInstalledBehaviors() { return xGetBehaviorsInPackages(InstallerAll); }

std::vector<std::string> ZBBehaviorManager::getUserBehaviorNames()
{
  warnDeprecatedList("getUserBehaviorNames");
  return withPrefix(userBehaviorPrefix, xGetBehaviorsInPackages(InstallerUser));
}

std::vector<std::string> ZBBehaviorManager::getSystemBehaviorNames()
{
  warnDeprecatedList("getSystemBehaviorNames");
  return withPrefix(systemBehaviorPrefix, xGetBehaviorsInPackages(InstallerSystem));
}

std::vector<std::string> ZBBehaviorManager::getBehaviorNames()
{
  warnDeprecatedList("getBehaviorNames");
  auto names = getUserBehaviorNames();
  const auto systemNames = getSystemBehaviorNames();
  names.insert(names.end(), systemNames.begin(), systemNames.end());
  return names;
}

std::string ZBBehaviorManager::getPackageDir(const std::string& uuid) const
{
  const Lock lock(_packagesMutex);
  for (const auto& package : _packages)
    if (package.uuid() == uuid)
      return boost::filesystem::path(package.path()).string();
  return {};
}

void ZBBehaviorManager::xPackageAdded(const vu::PackageInfo& package)
{
  {
    const Lock lock(_packagesMutex);
    if (findPackage(_packages, package.uuid()) != _packages.end())
      return;
    _packages.push_back(package);
  }
  std::vector<std::string> names;
  for (const auto& behavior : package.behaviors())
  {
    names.push_back(package.uuid() + "/" + behavior.path());
    onBehaviorAdded(names.back());
  }
  behaviorsAdded(names);
  xRaise(behaviorsAddedKey, names);
}

void ZBBehaviorManager::xPackageRemoved(const vu::PackageInfo& package)
{
  {
    const Lock lock(_packagesMutex);
    const auto cached = findPackage(_packages, package.uuid());
    if (cached == _packages.end())
      return;
    _packages.erase(cached);
  }
  std::vector<std::string> names;
  for (const auto& behavior : package.behaviors())
  {
    names.push_back(package.uuid() + "/" + behavior.path());
    onBehaviorRemoved(names.back());
  }
  behaviorsRemoved(names);
  xRaise(behaviorsRemovedKey, names);
}

void ZBBehaviorManager::onBehaviorAdded(const std::string& name)
{
  {
    // The package is in the catalogue already: an instance that a client got
    // into the record since then would be forgotten with its id.
    const auto loading = xBehaviorLoadingLock(name);
    if (const auto id = xFrameManagerId(name); !id.empty())
      xDeleteInstance(name, id);
    xSetBehaviorState(name, BehaviorState::Stopped);
    xSetFrameManagerId(name, "");
  }
  xRaise(behaviorAddedKey, name);
}

void ZBBehaviorManager::onBehaviorUpdated(const std::string& name) { xRaise(behaviorUpdatedKey, name); }

void ZBBehaviorManager::onBehaviorRemoved(const std::string& name)
{
  xUnloadBehavior(name);
  xSetBehaviorState(name, BehaviorState::Unknown);
  xRaise(behaviorRemovedKey, name);
}

} // namespace ZB::BehaviorManager
