#include <behaviormanager/behaviormanager.hpp>

#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{

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

} // namespace

std::vector<std::string> ZBBehaviorManager::getInstalledBehaviors() { return _catalogue.xGetBehaviorsInPackages(InstallerAll); }

std::vector<std::string> ZBBehaviorManager::getUserBehaviorNames()
{
  warnDeprecatedList("getUserBehaviorNames");
  return withPrefix(userBehaviorPrefix, _catalogue.xGetBehaviorsInPackages(InstallerUser));
}

std::vector<std::string> ZBBehaviorManager::getSystemBehaviorNames()
{
  warnDeprecatedList("getSystemBehaviorNames");
  return withPrefix(systemBehaviorPrefix, _catalogue.xGetBehaviorsInPackages(InstallerSystem));
}

std::vector<std::string> ZBBehaviorManager::getBehaviorNames()
{
  warnDeprecatedList("getBehaviorNames");
  auto names = getUserBehaviorNames();
  const auto systemNames = getSystemBehaviorNames();
  names.insert(names.end(), systemNames.begin(), systemNames.end());
  return names;
}

std::string ZBBehaviorManager::resolveBehaviorName(const std::string& name) const { return _catalogue.xResolveBehaviorName(name); }

bool ZBBehaviorManager::isBehaviorInstalled(const std::string& name) { return _catalogue.isBehaviorInstalled(name); }

bool ZBBehaviorManager::isBehaviorPresent(const std::string& name)
{
  vu::log::warning(logCategory, "isBehaviorPresent", "isBehaviorPresent is deprecated, please use isBehaviorInstalled instead");
  return isBehaviorInstalled(name);
}

std::vector<std::string> ZBBehaviorManager::getTagList() { return _catalogue.getBehaviorTags(""); }

std::vector<std::string> ZBBehaviorManager::getBehaviorTags(const std::string& path) { return _catalogue.getBehaviorTags(path); }

std::vector<std::string> ZBBehaviorManager::getBehaviorsByTag(const std::string& tag) { return _catalogue.getBehaviorsByTag(tag); }

std::string ZBBehaviorManager::getBehaviorNature(const std::string& name) { return _catalogue.getBehaviorNature(name); }

bool ZBBehaviorManager::isBehaviorRunning(const std::string& behavior)
{
  return _registry.xBehaviorState(_catalogue.xResolveBehaviorName(behavior)) == BehaviorState::Running;
}

bool ZBBehaviorManager::isBehaviorLoaded(const std::string& behavior)
{
  return isLoaded(_registry.xBehaviorState(_catalogue.xResolveBehaviorName(behavior)));
}

std::vector<std::string> ZBBehaviorManager::getRunningBehaviors()
{
  return _registry.behaviorsWhere([](BehaviorState state) { return state == BehaviorState::Running; });
}

std::vector<std::string> ZBBehaviorManager::getLoadedBehaviors() { return _registry.behaviorsWhere(isLoaded); }

std::string ZBBehaviorManager::getBehaviorFrameManagerId(const std::string& behavior)
{
  const auto path = _catalogue.xResolveBehaviorName(behavior);
  if (path.empty())
    throw makeError("getBehaviorFrameManagerId", "behavior " + behavior + " is not installed.");
  return _registry.xFrameManagerId(path);
}

std::string ZBBehaviorManager::xBehaviorOfId(const std::string& behaviorId, const char* method) const
{
  const auto behavior = _registry.behaviorOf(behaviorId);
  if (!behavior)
    throw makeError(method, "invalid parameter");
  return *behavior;
}

std::string ZBBehaviorManager::getBehaviorRelativePath(const std::string& behaviorId)
{
  std::string relativePath;
  _catalogue.xResolveBehaviorName(xBehaviorOfId(behaviorId, "getBehaviorRelativePath"), nullptr, &relativePath);
  return relativePath;
}

std::string ZBBehaviorManager::getPackageUid(const std::string& behaviorId)
{
  std::string packageUid;
  _catalogue.xResolveBehaviorName(xBehaviorOfId(behaviorId, "getPackageUid"), &packageUid, nullptr);
  return packageUid;
}

} // namespace ZB::BehaviorManager
