#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/algorithm/string.hpp>

#include <behaviormanager/catalogue.hpp>
#include <vu/packageinfo.hpp>
#include <vu/value.hpp>
#include <zb/zberror.hpp>

#include "standins.hpp"

namespace ZB::BehaviorManager
{

/// What the module and the frame manager between them are expected to do,
/// written down as plainly as possible: one thread, no locks, no signals. What
/// would be announced or asked of the frame manager stands in `announced`.
/// Names are those of a catalogue, which has tests of its own.
class Model
{
public:
  using Script = StandInFrameManager::Script;
  using Names = std::vector<std::string>;
  using Failure = StandInFrameManager::Failure;

  struct Run
  {
    std::string name; // as the client wrote it
    std::string path;
    std::string id;
    std::optional<std::string> outcome; // of one that has ended: the error's text
  };

  Names announced;
  std::map<std::string, Script> scripts;
  std::string defaults;                         // the preference file's value
  std::map<std::string, std::string> instances; // held by the frame manager: id to path
  std::vector<Run> runs;
  std::set<std::string> connected; // ids of plays

  /// The result as JSON, or "module.method: description" of the error. A run's
  /// result is its number in `runs`.
  std::string call(const std::string& method, const std::string& argument)
  {
    try
    {
      return answer(method, argument).dump();
    }
    catch (const ZBError& error)
    {
      return error.module() + "." + error.method() + ": " + error.description();
    }
  }

  void install(const vu::PackageInfo& package)
  {
    if (_catalogue.add(package) != Catalogue::noInstallation)
      change(package, true);
  }

  void remove(const vu::PackageInfo& package)
  {
    if (_catalogue.remove(package.uuid()))
      change(package, false);
  }

  /// An instance ends by itself.
  void end(const std::string& id, const Failure& failure)
  {
    instances.erase(id);
    _ended.emplace_back(id, failure);
  }

  /// The frame manager's reports of the ends since the last time, and what follows from them.
  void report()
  {
    for (const auto& [id, failure] : std::exchange(_ended, {}))
    {
      const auto path = _index.count(id) != 0 ? _index[id] : std::string();
      if (connected.erase(id) != 0 && !path.empty())
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
      }
      for (auto& run : runs)
        if (run.id == id)
        {
          if (_records[run.path].id == id)
            unload(run.path);
          if (run.name.starts_with("System/"))
            call("preloadBehavior", run.path);
          run.outcome = failure.value_or("");
        }
    }
  }

  std::set<std::string> behaviorsToPlay() const
  {
    auto names = readDefaults();
    if (isInstalled(".default"))
    {
      names.erase(resolve(".default")[0]);
      names.insert(".default");
    }
    std::erase_if(names, [this](const std::string& name) { return !isInstalled(name); });
    return names;
  }

private:
  enum State
  {
    Unknown,
    Stopped,
    Loaded,
    Running
  };
  struct Record
  {
    int state = Unknown;
    std::string id;
  };
  [[noreturn]] static void fail(const std::string& method, const std::string& description)
  {
    throw ZBError("ZBBehaviorManager", method, description);
  }

  vu::Value answer(const std::string& method, const std::string& argument)
  {
    using Answer = std::function<vu::Value()>;
    const auto done = [](const auto& action) -> Answer { return [action] { return action(), vu::Value(); }; };
    const std::map<std::string, Answer> answers{
        {"preloadBehavior", [&] { return load(argument); }},
        {"startBehavior", done([&] { start(argument); })},
        {"runBehavior", [&] { return run(argument); }},
        {"stopBehavior", done([&] { stop(argument); })},
        {"stopAllBehaviors", done([&] { std::ranges::for_each(inState(true), [&](const auto& path) { stop(path); }); })},
        {"isBehaviorInstalled", [&] { return isInstalled(argument); }},
        {"isBehaviorPresent", [&] { return isInstalled(argument); }},
        {"getInstalledBehaviors", [&] { return _catalogue.xGetBehaviorsInPackages(Catalogue::InstallerAll); }},
        {"getUserBehaviorNames", [&] { return listed({"User/"}); }},
        {"getSystemBehaviorNames", [&] { return listed({"System/"}); }},
        {"getBehaviorNames",
         [&] {
           return listed({"User/", "System/"});
         }},
        {"getBehaviorsByTag", [&] { return _catalogue.getBehaviorsByTag(argument); }},
        {"isBehaviorRunning", [&] { return _records[resolve(argument)[0]].state == Running; }},
        {"isBehaviorLoaded", [&] { return _records[resolve(argument)[0]].state >= Loaded; }},
        {"getRunningBehaviors", [&] { return inState(true); }},
        {"getLoadedBehaviors", [&] { return inState(false); }},
        {"getTagList", [&] { return _catalogue.getBehaviorTags(""); }},
        {"getBehaviorTags", [&] { return _catalogue.getBehaviorTags(argument); }},
        {"getBehaviorNature", [&] { return _catalogue.getBehaviorNature(argument); }},
        {"_getBehaviorRelativePath", [&] { return resolve(behaviorOf(argument, "getBehaviorRelativePath"))[2]; }},
        {"_getPackageUid", [&] { return resolve(behaviorOf(argument, "getPackageUid"))[1]; }},
        {"addDefaultBehavior", done([&] { changeDefault(argument, true); })},
        {"removeDefaultBehavior", done([&] { changeDefault(argument, false); })},
        {"getDefaultBehaviors", [&] { return readDefaults(); }},
        {"playDefaultProject", done([&] { playDefaults(); })},
        {"_onDataChanged", done([&] { playDefaults(); })},
        {"_getBehaviorFrameManagerId", [&] { return _records[installed(argument, "getBehaviorFrameManagerId", ".")].id; }},
        {"resolveBehaviorName", [&] { return resolve(argument)[0]; }}};
    return answers.at(method)();
  }

  /// Path, package and behavior.
  std::array<std::string, 3> resolve(const std::string& name) const
  {
    std::array<std::string, 3> resolved;
    resolved[0] = _catalogue.xResolveBehaviorName(name, &resolved[1], &resolved[2]);
    return resolved;
  }

  std::string installed(const std::string& name, const std::string& method, const std::string& stop) const
  {
    const auto path = resolve(name)[0];
    if (path.empty())
      fail(method, "behavior " + name + " is not installed" + stop);
    return path;
  }

  bool isInstalled(const std::string& name) const { return _catalogue.isBehaviorInstalled(name); }

  Names listed(const Names& prefixes) const
  {
    Names names;
    for (const auto& prefix : prefixes)
      for (const auto& name : _catalogue.xGetBehaviorsInPackages(prefix == "User/" ? Catalogue::InstallerUser : Catalogue::InstallerSystem))
        names.push_back(prefix + name);
    return names;
  }

  std::string behaviorOf(const std::string& id, const std::string& method)
  {
    return _index.count(id) != 0 ? _index[id] : (fail(method, "invalid parameter"), "");
  }

  Names inState(bool running) const
  {
    Names paths;
    for (const auto& [path, record] : _records)
      if (record.state == Running || (!running && record.state == Loaded))
        paths.push_back(path);
    return paths;
  }

  void setState(const std::string& path, int state)
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

  void setId(const std::string& path, const std::string& id)
  {
    auto& record = _records[path];
    _index.erase(record.id);
    record.id = id;
    if (!id.empty())
      _index[id] = path;
  }

  bool load(const std::string& name)
  {
    const auto path = installed(name, "preloadBehavior", ".");
    if (_records[path].state >= Loaded)
      return true;
    const auto [same, package, behavior] = resolve(name);
    const auto file = behavior == "." ? "behavior.xar" : behavior.ends_with(".xar") ? behavior : behavior + "/behavior.xar";
    announce("createBehavior", {_catalogue.getPackageDir(package), file, path});
    if (scripts[path] == Script::RefuseToLoad)
      throw ZBError("ZBFrameManager", "createBehavior", "refused");
    const auto id = "fm-" + std::to_string(++_lastId);
    instances[id] = path;
    setId(path, id);
    setState(path, Loaded);
    return true;
  }

  void start(const std::string& name, const std::string& method = "startBehavior")
  {
    const auto path = installed(name, method, "");
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
    connected.insert(record.id);
    announce("playBehavior", {record.id});
    const auto script = instances.count(record.id) != 0 ? scripts[path] : Script::RefuseToPlay;
    if (script == Script::RefuseToPlay)
      fail("startBehavior", "behavior " + path + " has been unexpectedly deleted");
    if (script != Script::Play)
      end(record.id, script == Script::FailInPlay ? Failure("no arm") : std::nullopt);
    setState(path, Running);
  }

  std::size_t run(const std::string& name)
  {
    start(name, "runBehavior");
    const auto path = resolve(name)[0];
    runs.push_back({name, path, _records[path].id, std::nullopt});
    return runs.size() - 1;
  }

  void stop(const std::string& name) { unload(installed(name, "stopBehavior", ".")); }

  void unload(const std::string& path)
  {
    const auto id = _records[path].id;
    if (instances.count(id) != 0)
    {
      announce("deleteBehavior", {id});
      end(id, std::nullopt);
    }
    else
      connected.erase(id); // nothing more is reported
    setId(path, "");
    setState(path, Stopped);
  }

  void change(const vu::PackageInfo& package, bool added)
  {
    const std::string what = added ? "Added" : "Removed";
    Names names;
    for (const auto& behavior : package.behaviors())
    {
      names.push_back(package.uuid() + "/" + behavior.path());
      unload(names.back()); // when added: what an earlier removal left behind
      if (!added)
        setState(names.back(), Unknown);
      event("ZBBehaviorManager/Behavior" + what, names.back());
    }
    signal("behaviors" + what, vu::Value::array({names}));
    event("ZBBehaviorManager/Behaviors" + what, names);
  }

  std::set<std::string> readDefaults() const
  {
    std::set<std::string> names;
    Names tokens;
    for (const auto& token : boost::split(tokens, defaults, boost::is_any_of("\n")))
      if (const auto path = resolve(token)[0]; !path.empty())
        names.insert(path);
    return names;
  }

  void changeDefault(const std::string& name, bool add)
  {
    auto names = readDefaults();
    if (add)
      names.insert(installed(name, "preloadBehavior", ""));
    else if (!names.empty() && names.erase(name) == 0)
      names.erase(resolve(name)[0]);
    defaults.clear();
    for (const auto& each : names)
      defaults += each + "\n";
  }

  void playDefaults()
  {
    for (const auto& name : behaviorsToPlay())
      call("runBehavior", name);
  }

  void announce(const std::string& what, const vu::Value& arguments) { announced.push_back(what + " " + arguments.dump()); }
  void signal(const std::string& name, const vu::Value& arguments) { announce("signal " + name, arguments); }
  void event(const std::string& key, const vu::Value& value) { announce("raiseMicroEvent", vu::Value::array({key, value})); }

  Catalogue _catalogue;
  std::map<std::string, Record> _records;
  std::map<std::string, std::string> _index; // frame manager id to path
  std::vector<std::pair<std::string, Failure>> _ended;
  int _lastId = 0;
};

} // namespace ZB::BehaviorManager
