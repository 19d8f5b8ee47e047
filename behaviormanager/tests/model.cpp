#include "model.hpp"

#include <algorithm>

#include <boost/algorithm/string.hpp>

#include <zb/zberror.hpp>

namespace ZB::BehaviorManager
{

namespace
{

enum State
{
  Unknown,
  Stopped,
  Loaded,
  Running
};

[[noreturn]] void fail(const std::string& method, const std::string& description)
{
  throw ZBError("ZBBehaviorManager", method, description);
}

std::string nameOf(const vu::PackageInfo& package, const vu::BehaviorInfo& behavior) { return package.uuid() + "/" + behavior.path(); }

} // namespace

std::string Model::call(const std::string& method, const std::string& argument)
{
  const auto answer = [&]() -> vu::Value
  {
    if (method == "preloadBehavior")
      return load(argument);
    if (method == "startBehavior")
      return start(argument), nullptr;
    if (method == "runBehavior")
      return run(argument);
    if (method == "stopBehavior")
      return stop(argument), nullptr;
    if (method == "stopAllBehaviors")
    {
      for (const auto& path : inState(true))
        stop(path);
      return nullptr;
    }
    if (method == "isBehaviorInstalled" || method == "isBehaviorPresent")
      return isInstalled(argument);
    if (method == "getInstalledBehaviors")
      return listed(true, true);
    if (method == "getUserBehaviorNames")
      return listed(false, true, "User/");
    if (method == "getSystemBehaviorNames")
      return listed(true, false, "System/");
    if (method == "getBehaviorNames")
    {
      auto names = listed(false, true, "User/");
      for (const auto& name : listed(true, false, "System/"))
        names.push_back(name);
      return names;
    }
    if (method == "getBehaviorsByTag")
      return tagged(argument);
    if (method == "isBehaviorRunning")
      return _records[resolve(argument).path].state == Running;
    if (method == "isBehaviorLoaded")
      return _records[resolve(argument).path].state >= Loaded;
    if (method == "getRunningBehaviors")
      return inState(true);
    if (method == "getLoadedBehaviors")
      return inState(false);
    if (method == "getTagList")
      return tags("");
    if (method == "getBehaviorTags")
      return tags(argument);
    if (method == "getBehaviorNature")
      return nature(argument);
    if (method == "_getBehaviorRelativePath" || method == "_getPackageUid")
    {
      const bool path = method == "_getBehaviorRelativePath";
      if (_index.count(argument) == 0)
        fail(path ? "getBehaviorRelativePath" : "getPackageUid", "invalid parameter");
      const auto resolved = resolve(_index[argument]);
      return path ? resolved.behavior : resolved.package;
    }
    if (method == "addDefaultBehavior" || method == "removeDefaultBehavior")
      return changeDefault(argument, method == "addDefaultBehavior"), nullptr;
    if (method == "getDefaultBehaviors")
      return readDefaults();
    if (method == "playDefaultProject" || (method == "_onDataChanged" && argument == "TarvikReady"))
      return playDefaults(), nullptr;
    if (method == "_onDataChanged")
      return nullptr;
    if (method == "_getBehaviorFrameManagerId")
    {
      const auto path = resolve(argument).path;
      if (path.empty())
        fail("getBehaviorFrameManagerId", "behavior " + argument + " is not installed.");
      return _records[path].id;
    }
    if (method == "resolveBehaviorName")
      return resolve(argument).path;
    return "no such method in the model";
  };
  try
  {
    return answer().dump();
  }
  catch (const ZBError& error)
  {
    return error.module() + "." + error.method() + ": " + error.description();
  }
}

Model::Resolved Model::resolve(const std::string& name) const
{
  const bool onlySystem = name.starts_with("System/");
  const bool onlyUser = name.starts_with("User/");
  const auto selected = [&](const vu::PackageInfo& package) { return package.installer() == "system" ? !onlyUser : !onlySystem; };

  const auto rest = onlySystem ? name.substr(7) : onlyUser ? name.substr(5) : name;
  const auto slash = rest.find('/');
  const auto uuid = rest.substr(0, slash);
  auto relative = slash == std::string::npos ? std::string() : rest.substr(slash + 1);
  if (relative.empty())
    relative = ".";
  for (const auto& package : _packages)
    if (selected(package) && package.uuid() == uuid)
      for (const auto& behavior : package.behaviors())
        if (behavior.path() == relative)
          return {uuid + "/" + relative, uuid, relative};

  Resolved found;
  for (const auto& package : _packages)
    if (selected(package))
      for (const auto& behavior : package.behaviors())
        if (behavior.path() == name)
        {
          if (!found.path.empty())
            fail("xResolveBehaviorName",
                 "Found several behaviors with the name \"" + name + "\". Please specify the package uuid in which to find the behavior.");
          found = {nameOf(package, behavior), package.uuid(), name};
        }
  return found;
}

bool Model::isInstalled(const std::string& name) const
{
  const auto path = resolve(name).path;
  return !path.empty() && missingDirectories.count(path) == 0;
}

std::vector<std::string> Model::listed(bool system, bool user, const std::string& prefix) const
{
  std::vector<std::string> names;
  for (const auto& package : _packages)
    if (package.installer() == "system" ? system : user)
      for (const auto& behavior : package.behaviors())
        names.push_back(prefix + (behavior.path() == "." ? package.uuid() : nameOf(package, behavior)));
  return names;
}

std::vector<std::string> Model::tags(const std::string& name) const
{
  const auto resolved = resolve(name);
  std::set<std::string> found;
  for (const auto& package : _packages)
    for (const auto& behavior : package.behaviors())
      if (name.empty() || nameOf(package, behavior) == resolved.path)
        for (const auto* locale : {"en_US", "en"})
          for (const auto& tag : behavior.tags(locale))
            found.insert(tag);
  return {found.begin(), found.end()};
}

std::vector<std::string> Model::tagged(const std::string& tag) const
{
  std::set<std::string> found;
  for (const auto& package : _packages)
    for (const auto& behavior : package.behaviors())
      for (const auto& each : behavior.tags("en_US"))
        if (each == tag)
          found.insert(nameOf(package, behavior));
  return {found.begin(), found.end()};
}

std::string Model::nature(const std::string& name) const
{
  if (name.empty())
    fail("getBehaviorNature", "getBehaviorNature was called with an empty parameter.");
  const auto path = resolve(name).path;
  for (const auto& package : _packages)
    for (const auto& behavior : package.behaviors())
      if (nameOf(package, behavior) == path)
        return behavior.nature();
  fail("getBehaviorNature", name + " was not found");
}

std::vector<std::string> Model::inState(bool running) const
{
  std::vector<std::string> paths;
  for (const auto& [path, record] : _records)
    if (record.state == Running || (!running && record.state == Loaded))
      paths.push_back(path);
  return paths;
}

void Model::setState(const std::string& path, int state)
{
  const auto old = std::exchange(_records[path].state, state);
  if (old == state)
    return;
  if (state != Unknown)
    signal(state == Loaded ? "behaviorLoaded" : state == Running ? "behaviorStarted" : "behaviorStopped", {path});
  if (state == Loaded || (state < Loaded && old >= Loaded))
    event("ZBBehaviorManager/BehaviorsLoaded", inState(false));
  if (state == Running || (state < Loaded && old == Running))
    event("BehaviorsRun", inState(true));
}

void Model::setId(const std::string& path, const std::string& id)
{
  auto& record = _records[path];
  _index.erase(record.id);
  record.id = id;
  if (!id.empty())
    _index[id] = path;
}

bool Model::load(const std::string& name)
{
  const auto path = resolve(name).path;
  if (path.empty())
    fail("preloadBehavior", "behavior " + name + " is not installed.");
  if (_records[path].state >= Loaded)
    return true;
  announced.push_back("frames createBehavior " + path);
  if (refusedToLoad.count(path) != 0)
    throw ZBError("ZBFrameManager", "createBehavior", "refused");
  const auto id = "fm-" + std::to_string(++_lastId);
  _instances[id] = path;
  setId(path, id);
  setState(path, Loaded);
  return true;
}

void Model::start(const std::string& name)
{
  const auto path = resolve(name).path;
  if (path.empty())
    fail("startBehavior", "behavior " + name + " is not installed");
  auto& record = _records[path];
  if (record.state == Running)
    fail("startBehavior", "behavior " + path + " is already running.");
  try
  {
    load(path);
  }
  catch (const ZBError& error)
  {
    fail("startBehavior", "behavior " + path + " failed to load: " + error.description());
  }
  _connected.insert(record.id);
  announced.push_back("frames playBehavior " + record.id);
  const auto script = _instances.count(record.id) != 0 ? scripts[path] : Script::RefuseToPlay;
  if (script == Script::RefuseToPlay)
    fail("startBehavior", "behavior " + path + " has been unexpectedly deleted");
  if (script != Script::Play)
    end(record.id, script == Script::FailInPlay ? std::optional<std::string>("no arm") : std::nullopt);
  setState(path, Running);
}

std::size_t Model::run(const std::string& name)
{
  const auto path = resolve(name).path;
  if (path.empty())
    fail("runBehavior", "behavior " + name + " is not installed");
  start(path);
  _runs.push_back({name, path, _records[path].id, std::nullopt});
  return _runs.size() - 1;
}

void Model::stop(const std::string& name)
{
  const auto path = resolve(name).path;
  if (path.empty())
    fail("stopBehavior", "behavior " + name + " is not installed.");
  unload(path);
}

void Model::unload(const std::string& path)
{
  const auto id = _records[path].id;
  if (_instances.count(id) != 0)
  {
    announced.push_back("frames deleteBehavior " + id);
    end(id, std::nullopt);
  }
  setId(path, "");
  setState(path, Stopped);
}

void Model::end(const std::string& id, const std::optional<std::string>& failure)
{
  _instances.erase(id);
  _ended.emplace_back(id, failure);
}

void Model::report()
{
  for (const auto& [id, failure] : std::exchange(_ended, {}))
  {
    for (auto& [path, record] : _records)
      if (_connected.count(id) != 0 && record.id == id)
      {
        if (failure)
        {
          signal("behaviorFailed", {path, id, *failure});
          event("ZBBehaviorManager/BehaviorFailed", {path, "the step", *failure});
        }
        if (isInstalled(path))
        {
          setId(path, "");
          setState(path, Stopped);
        }
        break;
      }
    _connected.erase(id);
    for (auto& run : _runs)
      if (run.id == id)
        finish(run, failure);
  }
}

void Model::finish(Run& run, const std::optional<std::string>& failure)
{
  if (_records[run.path].id == run.id)
    unload(run.path);
  if (run.name.starts_with("System/"))
    call("preloadBehavior", run.path);
  run.outcome = failure.value_or("");
}

void Model::install(const vu::PackageInfo& package)
{
  for (const auto& known : _packages)
    if (known.uuid() == package.uuid())
      return;
  _packages.push_back(package);
  auto names = vu::Value::array();
  for (const auto& behavior : package.behaviors())
  {
    const auto name = nameOf(package, behavior);
    // What an earlier installation left behind would be nobody's.
    if (const auto id = _records[name].id; _instances.count(id) != 0)
    {
      announced.push_back("frames deleteBehavior " + id);
      end(id, std::nullopt);
    }
    setState(name, Stopped);
    setId(name, "");
    event("ZBBehaviorManager/BehaviorAdded", name);
    names.push_back(name);
  }
  signal("behaviorsAdded", vu::Value::array({names}));
  event("ZBBehaviorManager/BehaviorsAdded", names);
}

void Model::remove(const vu::PackageInfo& package)
{
  const auto known = std::find_if(_packages.begin(), _packages.end(), [&](const auto& each) { return each.uuid() == package.uuid(); });
  if (known == _packages.end())
    return;
  _packages.erase(known);
  auto names = vu::Value::array();
  for (const auto& behavior : package.behaviors())
  {
    const auto name = nameOf(package, behavior);
    unload(name);
    setState(name, Unknown);
    event("ZBBehaviorManager/BehaviorRemoved", name);
    names.push_back(name);
  }
  signal("behaviorsRemoved", vu::Value::array({names}));
  event("ZBBehaviorManager/BehaviorsRemoved", names);
}

std::set<std::string> Model::readDefaults() const
{
  std::set<std::string> names;
  std::vector<std::string> tokens;
  boost::split(tokens, defaults.value_or(""), boost::is_any_of("\n"), boost::token_compress_on);
  try
  {
    for (const auto& token : tokens)
      if (!token.empty())
        if (const auto path = resolve(token).path; !path.empty())
          names.insert(path);
  }
  catch (const ZBError&)
  {
    // An ambiguous name ends the reading.
  }
  return names;
}

void Model::changeDefault(const std::string& name, bool add)
{
  auto names = readDefaults();
  if (add)
  {
    const auto path = resolve(name).path;
    if (path.empty())
      fail("preloadBehavior", "behavior " + name + " is not installed");
    names.insert(path);
  }
  else if (!names.empty() && names.erase(name) == 0)
    names.erase(resolve(name).path);
  defaults = "";
  for (const auto& each : names)
    *defaults += each + "\n";
}

std::set<std::string> Model::behaviorsToPlay() const
{
  auto names = readDefaults();
  if (isInstalled(".default"))
  {
    names.erase(resolve(".default").path);
    names.insert(".default");
  }
  for (auto name = names.begin(); name != names.end();)
    name = isInstalled(*name) ? std::next(name) : names.erase(name);
  return names;
}

bool Model::holdsInstance(const vu::PackageInfo& package) const
{
  const auto behaviors = package.behaviors();
  return std::any_of(behaviors.begin(), behaviors.end(),
                     [&](const auto& behavior)
                     {
                       const auto record = _records.find(nameOf(package, behavior));
                       return record != _records.end() && !record->second.id.empty();
                     });
}

void Model::playDefaults()
{
  for (const auto& name : behaviorsToPlay())
    call("runBehavior", name);
}

void Model::signal(const std::string& name, const vu::Value& arguments) { announced.push_back("signal " + name + " " + arguments.dump()); }

void Model::event(const std::string& key, const vu::Value& value) { announced.push_back("event " + key + " " + value.dump()); }

} // namespace ZB::BehaviorManager
