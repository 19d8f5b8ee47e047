#include <behaviormanager/behaviormanager.hpp>

#include <algorithm>

#include <boost/thread/lock_guard.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{
using Lock = boost::lock_guard<boost::mutex>;
}

std::vector<std::string> ZBBehaviorManager::getTagList() { return getBehaviorTags(""); }

std::vector<std::string> ZBBehaviorManager::getBehaviorTags(const std::string& path)
{
  std::string packageUid;
  std::string relativePath;
  if (!path.empty() && xResolveBehaviorName(path, &packageUid, &relativePath).empty())
    return {};

  std::set<std::string> tags;
  const Lock lock(_packagesMutex);
  for (const auto& package : _packages)
  {
    if (!packageUid.empty() && packageUid != package.uuid())
      continue;
    for (const auto& behavior : package.behaviors())
    {
      if (!relativePath.empty() && relativePath != behavior.path())
        continue;
      for (const char* locale : {"en_US", "en"})
        for (const auto& tag : behavior.tags(locale))
          tags.insert(tag);
    }
  }
  return {tags.begin(), tags.end()};
}

std::vector<std::string> ZBBehaviorManager::getBehaviorsByTag(const std::string& tag)
{
  std::set<std::string> names;
  const Lock lock(_packagesMutex);
  for (const auto& package : _packages)
    for (const auto& behavior : package.behaviors())
    {
      // Unlike getBehaviorTags(), the locale "en" does not count here.
      const auto tags = behavior.tags("en_US");
      if (std::find(tags.begin(), tags.end(), tag) != tags.end())
        names.insert(package.uuid() + "/" + behavior.path());
    }
  return {names.begin(), names.end()};
}

std::string ZBBehaviorManager::getBehaviorNature(const std::string& name)
{
  if (name.empty())
    throw makeError("getBehaviorNature", "getBehaviorNature was called with an empty parameter.");
  std::string packageUid;
  std::string relativePath;
  const bool resolved = !xResolveBehaviorName(name, &packageUid, &relativePath).empty();
  if (resolved)
  {
    const Lock lock(_packagesMutex);
    for (const auto& package : _packages)
    {
      if (package.uuid() != packageUid)
        continue;
      for (const auto& behavior : package.behaviors())
        if (behavior.path() == relativePath)
          return behavior.nature();
    }
  }
  throw makeError("getBehaviorNature", name + " was not found");
}

std::string ZBBehaviorManager::xBehaviorOfId(const std::string& behaviorId, const char* method)
{
  const Lock lock(_fmIdsMutex);
  const auto found = _fmIds.find(behaviorId);
  if (found == _fmIds.end())
    throw makeError(method, "invalid parameter");
  return found->second;
}

std::string ZBBehaviorManager::getBehaviorRelativePath(const std::string& behaviorId)
{
  std::string relativePath;
  xResolveBehaviorName(xBehaviorOfId(behaviorId, "getBehaviorRelativePath"), nullptr, &relativePath);
  return relativePath;
}

std::string ZBBehaviorManager::getPackageUid(const std::string& behaviorId)
{
  std::string packageUid;
  xResolveBehaviorName(xBehaviorOfId(behaviorId, "getPackageUid"), &packageUid, nullptr);
  return packageUid;
}

} // namespace ZB::BehaviorManager
