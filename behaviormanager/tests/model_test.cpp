#include <cstdlib>
#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "model.hpp"
#include <testing/sanitized.hpp>
#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;

/// Random histories of calls, package changes and ends, on the module and on
/// the model, compared step by step. MODEL_SEED=n plays sequence n alone.
namespace
{

using Script = StandInFrameManager::Script;

constexpr unsigned sequences = TestSupport::sanitized ? 200 : 2000;
constexpr int steps = 15;

class Comparison
{
public:
  Comparison() : _manager(_platform.start()), _service(_platform.broker->session()->find("ZBBehaviorManager"))
  {
    const auto tagged = [](const std::string& path, std::list<std::string> american, std::list<std::string> english) {
      return vu::BehaviorInfo(path, "nature of " + path, {{"en_US", std::move(american)}, {"en", std::move(english)}});
    };
    const auto plain = [](const std::string& path) { return vu::BehaviorInfo(path); };
    const auto a = tagged("a", {"dance", "wave"}, {"music"});
    _packages = {_platform.makePackage("P", {a, plain("b/c"), tagged(".", {}, {"wave"})}),
                 _platform.makePackage("P", {a, plain("x")}, "system"),
                 _platform.makePackage("P", {a}),
                 _platform.makePackage("Q", {tagged("a", {"wave"}, {}), plain("d"), plain("e")}, "system"),
                 _platform.makePackage("R", {plain("b/c"), plain(".default"), plain("gone")}),
                 _platform.makePackage("D", {plain(".default"), plain("User/a")}, ""),
                 _platform.makePackage("E", {})};
    std::filesystem::remove(_platform.directory / "R" / "gone");
    _model.missingDirectories = {"R/gone"};
  }

  /// False when the two differ, which has then been told.
  bool play(unsigned seed)
  {
    _random.seed(seed);
    _history.clear();
    _platform.log.clear();
    setBehaviors();
    for (int step = 0; step < steps; ++step)
      if (!act())
        return tell(seed);
    return cleanUp() || tell(seed);
  }

private:
  std::size_t below(std::size_t bound) { return std::uniform_int_distribution<std::size_t>(0, bound - 1)(_random); }
  template <typename T> const T& anyOf(const std::vector<T>& values) { return values[below(values.size())]; }

  void setBehaviors()
  {
    _platform.frames->acceptAll();
    _model.refusedToLoad.clear();
    for (const auto& path : paths)
    {
      const auto script =
          anyOf<Script>({Script::Play, Script::Play, Script::Play, Script::EndInPlay, Script::FailInPlay, Script::RefuseToPlay});
      _platform.frames->script(path, script);
      _model.scripts[path] = script;
      if (below(10) == 0)
      {
        _platform.frames->refuse("createBehavior " + path, "refused");
        _model.refusedToLoad.insert(path);
      }
    }
    _platform.preferences->setFile(vu::Value::array({vu::Value::array({"", "", ""})}));
    _model.defaults = "";
  }

  bool act()
  {
    switch (below(10))
    {
    case 0:
      return change("install", anyOf(_packages));
    case 1:
      return change("remove", anyOf(_packages));
    case 2:
      return end();
    case 3:
      return call(anyOf(calls), anyOf(names));
    default:
      return call(anyOf(actions), anyOf(names));
    }
  }

  bool change(const std::string& what, const vu::PackageInfo& package)
  {
    _history.push_back(what + " " + package.toValue().dump());
    what == "install" ? _model.install(package) : _model.remove(package);
    return compare(
        [&]
        {
          const auto event = what == "install" ? "packageInstalled" : "packageRemoved";
          _service.call<void>("_onDataChanged", std::string(event), package.toValue(), std::string());
        });
  }

  bool end()
  {
    if (_model.instances().empty())
      return true;
    const auto instance = std::next(_model.instances().begin(), static_cast<std::ptrdiff_t>(below(_model.instances().size())));
    const auto id = instance->first;
    const auto failure = below(2) == 0 ? std::optional<std::string>("broken") : std::nullopt;
    _history.push_back("end " + id + (failure ? " with a failure" : ""));
    _model.end(id, failure);
    return compare([&] { _platform.frames->end(id, failure); });
  }

  bool call(const std::string& method, const std::string& argument)
  {
    if (!isDefinite(method, argument))
      return true;
    const auto given = method.starts_with("_get") && method != "_getBehaviorFrameManagerId" ? anyId() : argument;
    _history.push_back(method + " " + (method == "_onDataChanged" ? "TarvikReady" : given));
    const auto expected = _model.call(method, method == "_onDataChanged" ? "TarvikReady" : given);
    std::string result;
    return compare([&] { result = callModule(method, given); }) && equal("result", result, expected);
  }

  /// The order in which posted calls run is nobody's promise: not more than one at a time.
  bool isDefinite(const std::string& method, const std::string& argument)
  {
    if (method == "runBehavior" && argument.starts_with("System/"))
      for (const auto& run : _model.runs())
        if (!run.outcome && run.name.starts_with("System/"))
          return false;
    try
    {
      return (method != "playDefaultProject" && method != "_onDataChanged") || _model.behaviorsToPlay().size() <= 1;
    }
    catch (const ZBError&)
    {
      return true; // ambiguous: nothing is played
    }
  }

  std::string anyId()
  {
    const auto& instances = _model.instances();
    return instances.empty() ? "fm-0" : std::next(instances.begin(), static_cast<std::ptrdiff_t>(below(instances.size())))->first;
  }

  std::string callModule(const std::string& method, const std::string& argument)
  {
    try
    {
      if (method == "runBehavior")
      {
        const auto future = _manager.runBehavior(argument);
        const auto run = _model.runs().size() - 1;
        _open.emplace(run, future);
        return std::to_string(run);
      }
      if (method == "_onDataChanged")
        return _service.call<vu::Value>(method, std::string("TarvikReady"), vu::Value(1.7), std::string()).dump();
      for (const auto& described : _service.description().methods)
        if (described.name == method)
          return (described.parameters.empty() ? _service.call<vu::Value>(method) : _service.call<vu::Value>(method, argument)).dump();
      return "no such method";
    }
    catch (const vu::ServiceError& error)
    {
      return error.module() + "." + error.method() + ": " + error.description();
    }
  }

  /// Ends are reported once the call is over, so that the order is the same every time.
  bool compare(const std::function<void()>& action)
  {
    _model.report();
    _platform.frames->hold();
    action();
    _platform.frames->release();
    _platform.settle();
    std::vector<std::string> happened;
    for (auto& line : _platform.journal.lines())
      if (line.starts_with("signal ") || line.starts_with("event ") || line.starts_with("frames "))
        happened.push_back(std::move(line));
    _platform.journal.clear();
    const auto announced = std::exchange(_model.announced, {});
    for (std::size_t i = 0; i < std::max(happened.size(), announced.size()); ++i)
      if (!equal("announcement " + std::to_string(i + 1), i < happened.size() ? happened[i] : "none",
                 i < announced.size() ? announced[i] : "none"))
        return false;
    return equal("preference file", _platform.preferences->file().at(0).at(2), *_model.defaults) &&
           equal("connections", std::to_string(_platform.frames->connections()), std::to_string(_model.connections())) &&
           equal("instances", std::to_string(_platform.frames->behaviors().size()), std::to_string(_model.instances().size())) &&
           compareRuns();
  }

  bool compareRuns()
  {
    for (auto open = _open.begin(); open != _open.end();)
    {
      const auto& run = _model.runs().at(open->first);
      if (!equal("end of the run of " + run.path, open->second.isFinished() ? open->second.error() : "none yet",
                 run.outcome.value_or("none yet")))
        return false;
      open = run.outcome ? _open.erase(open) : std::next(open);
    }
    return true;
  }

  bool equal(const std::string& what, const std::string& module, const std::string& model)
  {
    if (module != model)
      _history.push_back("differs: " + what + "\n    module: " + module + "\n    model:  " + model);
    return module == model;
  }

  /// Everything can be stopped to nothing, whatever has happened.
  bool cleanUp()
  {
    while (!_model.packages().empty())
      if (!change("remove", vu::PackageInfo(_model.packages().front())))
        return false;
    for (const auto& package : _packages)
      if (_model.holdsInstance(package) && (!change("install", package) || !change("remove", package)))
        return false;
    return equal("instances left", std::to_string(_platform.frames->behaviors().size()), "0");
  }

  bool tell(unsigned seed)
  {
    std::string text = "sequence " + std::to_string(seed) + " (MODEL_SEED=" + std::to_string(seed) + ")";
    for (const auto& line : _history)
      text += "\n  " + line;
    ADD_FAILURE() << text;
    return false;
  }

  const std::vector<std::string> paths{"P/a", "P/b/c", "P/.",        "P/x",    "Q/a",        "Q/d",
                                       "Q/e", "R/b/c", "R/.default", "R/gone", "D/.default", "D/User/a"};
  const std::vector<std::string> names{"P/a",        "P",          "P/.",        "P/b/c",    "P/x",  "P/",         "Q/a",    "Q/d",
                                       "Q/e",        "R/b/c",      "R/gone",     ".default", "a",    "b/c",        "d",      "gone",
                                       "User/P/a",   "User/a",     "System/P/a", "System/P", "x",    "System/Q/d", "nobody", "User/",
                                       "System/Q/a", "R/.default", "D/.default", "wave",     "a//b", "dance",      "",       "/"};
  const std::vector<std::string> actions{"preloadBehavior",    "startBehavior",         "runBehavior",        "stopBehavior",
                                         "startBehavior",      "runBehavior",           "stopBehavior",       "stopAllBehaviors",
                                         "addDefaultBehavior", "removeDefaultBehavior", "playDefaultProject", "_onDataChanged"};
  const std::vector<std::string> calls{
      "isBehaviorInstalled", "isBehaviorPresent",   "getBehaviorNames",           "getUserBehaviorNames",     "getSystemBehaviorNames",
      "getBehaviorsByTag",   "isBehaviorRunning",   "isBehaviorLoaded",           "getRunningBehaviors",      "getLoadedBehaviors",
      "getTagList",          "getBehaviorTags",     "getBehaviorNature",          "_getBehaviorRelativePath", "_getPackageUid",
      "getDefaultBehaviors", "resolveBehaviorName", "_getBehaviorFrameManagerId", "getInstalledBehaviors"};

  TestPlatform _platform;
  ZBBehaviorManager& _manager;
  const vu::Object _service;
  std::vector<vu::PackageInfo> _packages;
  Model _model;
  std::mt19937 _random;
  std::vector<std::string> _history;
  std::map<std::size_t, vu::Future<void>> _open; // by the run's number; those of defaults have none
};

} // namespace

TEST(ModelTest, RandomHistoriesMatchTheModel)
{
  const char* const only = std::getenv("MODEL_SEED");
  const auto first = only ? static_cast<unsigned>(std::atoi(only)) : 1;
  const auto level = vu::log::level();
  vu::log::setLevel(vu::log::Level::Silent);
  Comparison comparison;
  for (auto seed = first; seed < first + (only ? 1 : sequences); ++seed)
    if (!comparison.play(seed))
      break;
  vu::log::setLevel(level);
}
