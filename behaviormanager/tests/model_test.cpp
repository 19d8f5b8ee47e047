#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "model.hpp"
#include "testplatform.hpp"
#include <testing/sanitized.hpp>

using namespace ZB;
using namespace ZB::BehaviorManager;

/// Random histories of calls, package changes and ends, on the module and on
/// the model, compared step by step. MODEL_SEED=n plays sequence n alone.
namespace
{

using Script = StandInFrameManager::Script;

constexpr unsigned sequences = TestSupport::sanitized ? 200 : 2000;
constexpr int steps = 15;

const std::vector<std::string> names{
    "old/behavior.xar", "R/gone", "a//b", "R/a", "System/P/a", "User/a", "P/a", "P/", "System/Q/d", "nobody", "P/.", "P",
    "System/Q/a",       "P/b/c",  "P/x",  "a",   "R/.default", "R/b/c",  "Q/a", "d",  "D/.default", "User/",  "Q/d", "x",
    ".default",         "dance",  "Q/e",  "/",   "User/P/a",   "gone",   "b/c", "",   "System/P",   "wave"};
const std::vector<std::string> actions{"preloadBehavior",    "startBehavior",         "runBehavior",        "stopBehavior",
                                       "startBehavior",      "runBehavior",           "stopBehavior",       "stopAllBehaviors",
                                       "addDefaultBehavior", "removeDefaultBehavior", "playDefaultProject", "_onDataChanged"};
const std::vector<std::string> calls{"isBehaviorInstalled",    "isBehaviorPresent",          "getBehaviorNames",     "getUserBehaviorNames",
                                     "getSystemBehaviorNames", "getBehaviorsByTag",          "isBehaviorRunning",    "isBehaviorLoaded",
                                     "getRunningBehaviors",    "getLoadedBehaviors",         "getTagList",           "getBehaviorTags",
                                     "getBehaviorNature",      "_getBehaviorRelativePath",   "_getPackageUid",       "getDefaultBehaviors",
                                     "resolveBehaviorName",    "_getBehaviorFrameManagerId", "getInstalledBehaviors"};

const std::set<std::string> announcements{"signal", "raiseMicroEvent", "createBehavior", "playBehavior", "deleteBehavior"};

class Comparison
{
public:
  Comparison()
  {
    const auto tagged = [](const std::string& path, const std::string& nature, std::list<std::string> american,
                           std::list<std::string> english) {
      return vu::BehaviorInfo(path, nature, {{"en_US", std::move(american)}, {"en", std::move(english)}});
    };
    const auto plain = [](const std::string& path) { return vu::BehaviorInfo(path); };
    const auto a = tagged("a", "solitary", {"dance", "wave"}, {"music"});
    const auto make = [this](const std::string& uuid, const std::list<vu::BehaviorInfo>& behaviors, const std::string& installer = "user")
    { _packages.push_back(_platform.makePackageOf(uuid, behaviors, installer)); };
    make("P", {a, plain("b/c"), tagged(".", "root", {}, {"wave"})});
    make("P", {a, plain("x")}, "system");
    make("P", {a});
    make("Q", {tagged("a", "interactive", {"wave"}, {}), plain("d"), plain("e"), plain("old/behavior.xar")}, "system");
    make("R", {tagged("a", "other", {}, {}), plain("b/c"), plain(".default"), plain("gone")});
    make("D", {plain(".default"), plain("User/a")}, "System");
    make("E", {});
    std::filesystem::remove(_platform.directory / "R" / "gone");
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
    for (const auto& package : _packages)
      for (const auto& behavior : package.behaviors())
      {
        const auto path = package.uuid() + "/" + behavior.path();
        const auto script = anyOf<Script>({Script::Play, Script::Play, Script::Play, Script::Play, Script::EndInPlay, Script::FailInPlay,
                                           Script::RefuseToPlay, Script::RefuseToLoad});
        _platform.frames->script(path, script);
        _model.scripts[path] = script;
      }
    _platform.preferenceFile = vu::Value::array({vu::Value::array({"", "", ""})});
    _model.defaults = "";
  }

  bool act()
  {
    switch (below(10))
    {
    case 0:
      return change("packageInstalled", anyOf(_packages));
    case 1:
      return change("packageRemoved", anyOf(_packages));
    case 2:
      return end();
    case 3:
      return call(anyOf(calls), anyOf(names));
    default:
      return call(anyOf(actions), anyOf(names));
    }
  }

  bool change(const std::string& event, const vu::PackageInfo& package)
  {
    _history.push_back(event + " " + package.toValue().dump());
    event == "packageInstalled" ? _model.install(package) : _model.remove(package);
    return compare([&] { _service.call<void>("_onDataChanged", event, package.toValue(), std::string()); });
  }

  bool end()
  {
    const auto id = anyId();
    if (_model.instances.count(id) == 0)
      return true;
    const auto failure = below(2) == 0 ? std::optional<std::string>("broken") : std::nullopt;
    _history.push_back("end " + id + (failure ? " with a failure" : ""));
    _model.end(id, failure);
    return compare([&] { _platform.frames->end(id, failure); });
  }

  bool call(const std::string& method, const std::string& name)
  {
    if (!isDefinite(method, name))
      return true;
    const auto argument = method == "_getBehaviorRelativePath" || method == "_getPackageUid" ? anyId() : name;
    _history.push_back(method + " " + argument);
    const auto expected = _model.call(method, argument);
    std::string result;
    return compare([&] { result = callModule(method, argument); }) && equal("result", result, expected);
  }

  /// The order in which posted calls run is nobody's promise: not more than one at a time.
  bool isDefinite(const std::string& method, const std::string& argument)
  {
    if (method == "runBehavior" && argument.starts_with("System/"))
      for (const auto& run : _model.runs)
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
    const auto& instances = _model.instances;
    return instances.empty() ? "fm-0" : std::next(instances.begin(), static_cast<std::ptrdiff_t>(below(instances.size())))->first;
  }

  std::string callModule(const std::string& method, const std::string& argument)
  {
    std::string result;
    const auto error = refusal(
        [&]
        {
          if (method == "runBehavior")
          {
            const auto future = _platform.manager->runBehavior(argument);
            _open.emplace(_model.runs.size() - 1, future);
            result = std::to_string(_model.runs.size() - 1);
          }
          else if (method == "_onDataChanged")
            result = _service.call<vu::Value>(method, std::string("TarvikReady"), vu::Value(1.7), std::string()).dump();
          else if (_description.method(method)->parameters.empty())
            result = _service.call<vu::Value>(method).dump();
          else
            result = _service.call<vu::Value>(method, argument).dump();
        });
    return error == "no error" ? result : error;
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
      if (announcements.count(line.substr(0, line.find(' '))) != 0)
        happened.push_back(std::move(line));
    _platform.journal.clear();
    const auto announced = std::exchange(_model.announced, {});
    for (std::size_t i = 0; i < std::max(happened.size(), announced.size()); ++i)
      if (!equal("announcement " + std::to_string(i + 1), i < happened.size() ? happened[i] : "none",
                 i < announced.size() ? announced[i] : "none"))
        return false;
    return equal("preference file", _platform.preferenceFile->at(0).at(2), _model.defaults) &&
           equal("connections", std::to_string(_platform.frames->connections()), std::to_string(2 * _model.connected.size())) &&
           equal("instances", std::to_string(_platform.frames->behaviors().size()), std::to_string(_model.instances.size())) &&
           compareRuns();
  }

  bool compareRuns()
  {
    for (auto open = _open.begin(); open != _open.end();)
    {
      const auto& run = _model.runs.at(open->first);
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
    for (const auto& package : _packages)
      if (!change("packageInstalled", package) || !change("packageRemoved", package))
        return false;
    return equal("what is left", std::to_string(_platform.frames->behaviors().size() + _platform.frames->connections()), "0");
  }

  bool tell(unsigned seed)
  {
    std::string text = "sequence " + std::to_string(seed) + " (MODEL_SEED=" + std::to_string(seed) + ")";
    for (const auto& line : _history)
      text += "\n  " + line;
    ADD_FAILURE() << text;
    return false;
  }

  TestPlatform _platform;
  const vu::Object _service = (_platform.start(), _platform.service());
  const vu::ObjectDescription _description = _service.description();
  std::vector<vu::PackageInfo> _packages;
  Model _model;
  std::mt19937 _random;
  std::vector<std::string> _history;
  std::map<std::size_t, vu::Future<void>> _open; // by the run's number; those of defaults have none
};

} // namespace

TEST(BehaviorManagerModel, RandomHistoriesMatch)
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
