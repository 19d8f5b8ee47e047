#include <behaviormanager/behaviormanager.hpp>

#include <algorithm>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <vu/log.hpp>
#include <zb/zbpreferencesproxy.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{

constexpr const char* startUpBehavior = ".default";

/// Resolves a default; one that is ambiguous costs more than itself, which the
/// log tells before the error goes on.
std::string resolveDefault(const Catalogue& catalogue, const std::string& name, const char* function, const char* consequence)
{
  try
  {
    return catalogue.xResolveBehaviorName(name);
  }
  catch (const ZBError& error)
  {
    vu::log::warning(logCategory, function, "default behavior \"" + name + "\": " + error.what() + " " + consequence);
    throw;
  }
}

} // namespace

void ZBBehaviorManager::xReadDefaultBehaviors(std::set<std::string>& out) const
{
  try
  {
    const ZBPreferencesProxy preferences(getParentBroker());
    const ZBValue settings = preferences.readPrefFile(defaultBehaviorsModuleName, false);
    auto text = settings[0][2].to<std::string>();
    text.erase(std::min(text.size(), text.find('\0'))); // a zero byte ends it, whatever comes behind
    std::vector<std::string> names;
    boost::algorithm::split(names, text, boost::algorithm::is_any_of("\n"), boost::algorithm::token_compress_on);
    for (const auto& name : names)
    {
      if (name.empty()) // before the first and behind the last line feed
        continue;
      const auto path =
          resolveDefault(_catalogue, name, "xReadDefaultBehaviors", "The default behaviors behind it in the list are left out.");
      if (!path.empty())
        out.insert(path);
    }
  }
  catch (const std::exception& error)
  {
    vu::log::verbose(logCategory, "xReadDefaultBehaviors",
                     std::string("DefaultBehaviors preference file could not be read: ") + error.what());
  }
}

void ZBBehaviorManager::xWriteDefaultBehaviors(const std::set<std::string>& names) const
{
  std::string text;
  for (const auto& name : names)
    text += name + "\n";
  ZBValue setting;
  setting.arrayPush(defaultBehaviorsModuleName);
  setting.arrayPush("List of default behaviors separated by endlines");
  setting.arrayPush(text);
  ZBValue settings;
  settings.arrayPush(setting);
  const ZBPreferencesProxy preferences(getParentBroker());
  preferences.writePrefFile(defaultBehaviorsModuleName, settings, true);
}

void ZBBehaviorManager::addDefaultBehavior(const std::string& behavior)
{
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  const auto path = _catalogue.xResolveBehaviorName(behavior);
  if (path.empty())
    // Reported under this method's name; clients compare it.
    throw makeError("preloadBehavior", "behavior " + behavior + " is not installed");
  names.insert(path);
  xWriteDefaultBehaviors(names);
}

void ZBBehaviorManager::removeDefaultBehavior(const std::string& behavior)
{
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  if (!names.empty() && names.erase(behavior) == 0)
    names.erase(_catalogue.xResolveBehaviorName(behavior));
  xWriteDefaultBehaviors(names);
}

std::vector<std::string> ZBBehaviorManager::getDefaultBehaviors()
{
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  return {names.begin(), names.end()};
}

void ZBBehaviorManager::playDefaultProject()
{
  const ZBProxy self(getParentBroker(), getName(), 0, 0);
  const auto startUp = resolveDefault(_catalogue, startUpBehavior, "playDefaultProject", "No default behavior is played.");
  if (isBehaviorInstalled(startUpBehavior))
    self.pCall("runBehavior", std::string(startUpBehavior));
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  // The list holds names as they resolve; so does this one.
  names.erase(startUpBehavior);
  names.erase(startUp);
  for (const auto& name : names)
    if (isBehaviorInstalled(name))
      self.pCall("runBehavior", name);
}

} // namespace ZB::BehaviorManager
