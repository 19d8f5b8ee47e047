#include <behaviormanager/behaviormanager.hpp>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/thread/lock_guard.hpp>

#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{

using Lock = boost::lock_guard<boost::mutex>;
namespace fs = boost::filesystem;

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

bool hasBehavior(const vu::PackageInfo& package, const std::string& path)
{
  for (const auto& behavior : package.behaviors())
    if (behavior.path() == path)
      return true;
  return false;
}

} // namespace

std::string ZBBehaviorManager::xResolveBehaviorName(const std::string& name, std::string* package, std::string* behavior) const
{
  const auto parts = splitName(name);
  InstallerFlag selection = InstallerAll;
  std::size_t first = 0;
  if (boost::algorithm::starts_with(name, systemBehaviorPrefix))
    selection = InstallerSystem;
  else if (boost::algorithm::starts_with(name, userBehaviorPrefix))
    selection = InstallerUser;
  if (selection != InstallerAll)
    first = 1;
  if (first >= parts.size())
    return {};
  const auto selected = [this, selection](const vu::PackageInfo& info)
  { return (selection & (xIsSystemPackage(info) ? InstallerSystem : InstallerUser)) != 0; };

  const auto& uuid = parts[first];
  auto relative = joinFrom(parts, first + 1);
  if (relative.empty())
    relative = ".";

  const Lock lock(_packagesMutex);
  for (const auto& info : _packages)
    if (selected(info) && info.uuid() == uuid && hasBehavior(info, relative))
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
  for (const auto& info : _packages)
  {
    if (!selected(info))
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

std::string ZBBehaviorManager::resolveBehaviorName(const std::string& name) const { return xResolveBehaviorName(name, nullptr, nullptr); }

std::string ZBBehaviorManager::xFindBehavior(const std::string& name) const
{
  const auto parts = splitName(name);
  if (parts.size() < 2)
    return {};
  const auto relative = joinFrom(parts, 1);
  const Lock lock(_packagesMutex);
  for (const auto& info : _packages)
    if (info.uuid() == parts[0] && hasBehavior(info, relative))
      return (fs::path(info.path()) / relative).string();
  return {};
}

bool ZBBehaviorManager::isBehaviorInstalled(const std::string& name)
{
  const auto directory = xFindBehavior(xResolveBehaviorName(name, nullptr, nullptr));
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

bool ZBBehaviorManager::isBehaviorPresent(const std::string& name)
{
  vu::log::warning(logCategory, "isBehaviorPresent", "isBehaviorPresent is deprecated, please use isBehaviorInstalled instead");
  return isBehaviorInstalled(name);
}

} // namespace ZB::BehaviorManager
