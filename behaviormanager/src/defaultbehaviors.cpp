#include <behaviormanager/behaviormanager.hpp>

#include <algorithm>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>

#include <vu/log.hpp>
#include <zb/zbpreferencesproxy.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{
constexpr const char* startUpBehavior = ".default";
}

void ZBBehaviorManager::xReadDefaultBehaviors(std::set<std::string>& out) const
{
  try
  {
    const ZBPreferencesProxy preferences(getParentBroker());
    const ZBValue settings = preferences.readPrefFile(defaultBehaviorsModuleName, false);
    const auto text = settings[0][2].to<std::string>();
    std::vector<std::string> names;
    boost::algorithm::split(names, text, boost::algorithm::is_any_of("\n"), boost::algorithm::token_compress_on);
    for (const auto& name : names)
    {
      if (name.empty()) // before the first and behind the last line feed
        continue;
      const auto path = xResolveBehaviorName(name, nullptr, nullptr);
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

bool ZBBehaviorManager::xIsDefaultBehavior(const std::string& name) const
{
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  return names.count(name) != 0;
}

void ZBBehaviorManager::addDefaultBehavior(const std::string& behavior)
{
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  const auto path = xResolveBehaviorName(behavior, nullptr, nullptr);
  if (path.empty())
    // Clients compare the method that it is reported under.
    throw makeError("preloadBehavior", "behavior " + behavior + " is not installed");
  names.insert(path);
  xWriteDefaultBehaviors(names);
}

void ZBBehaviorManager::removeDefaultBehavior(const std::string& behavior)
{
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  if (!names.empty() && names.erase(behavior) == 0)
    names.erase(xResolveBehaviorName(behavior, nullptr, nullptr));
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
  if (isBehaviorInstalled(startUpBehavior))
    self.pCall("runBehavior", std::string(startUpBehavior));
  std::set<std::string> names;
  xReadDefaultBehaviors(names);
  // The list holds names as they resolve; so does this one.
  names.erase(startUpBehavior);
  names.erase(xResolveBehaviorName(startUpBehavior, nullptr, nullptr));
  for (const auto& name : names)
    if (isBehaviorInstalled(name))
      self.pCall("runBehavior", name);
}

bool ZBBehaviorManager::copy(const boost::filesystem::path& from, const boost::filesystem::path& to)
{
  namespace fs = boost::filesystem;
  try
  {
    boost::system::error_code error; // a status that fails counts as not found
    if (!fs::is_directory(fs::status(from, error)))
    {
      fs::copy_file(from, to, fs::copy_options::none); // fails if `to` exists
      return true;
    }
    const auto target = fs::status(to, error);
    if (!fs::exists(target))
      fs::create_directory(to);
    else if (!fs::is_directory(target))
      return false;
    for (const auto& entry : fs::directory_iterator(from))
      if (!copy(entry.path(), to / entry.path().filename()))
        return false;
    return true;
  }
  catch (const fs::filesystem_error&)
  {
    return false;
  }
}

} // namespace ZB::BehaviorManager
