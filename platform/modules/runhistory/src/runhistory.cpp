#include <runhistory.hpp>

#include <algorithm>
#include <functional>
#include <utility>

#include <vu/log.hpp>
#include <vu/text.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

namespace
{

constexpr const char* fileName = "history.db";
constexpr int runsKept = 10000;
constexpr int runsKeptAtMost = 1000000;
constexpr std::size_t earlyEndsKept = 64;
constexpr std::size_t unwrittenKept = 1000;
constexpr std::size_t textLimit = 4096; // of a failure's step and message, in bytes
constexpr std::chrono::seconds lastNewsLimit(5);
constexpr const char* packageManagerName = "PackageManager";
constexpr const char* behaviorManagerName = "ZBBehaviorManager";

std::filesystem::path databaseFile(const ZBBroker& broker, const std::string& module)
{
  const auto root = broker.configuration().value("root", vu::Value());
  if (!root.is_string() || !std::filesystem::path(root.get<std::string>()).is_absolute())
    throw ZBError(module, "RunHistory", "the broker's configuration names no absolute \"root\" directory to keep the history in");
  return std::filesystem::path(root.get<std::string>()) / fileName;
}

std::int64_t runLimit(const ZBBroker& broker, const std::string& module)
{
  const vu::Value::json_pointer setting("/history/runs");
  if (!broker.configuration().contains(setting))
    return runsKept;
  const auto& value = broker.configuration().at(setting);
  if (!value.is_number_integer() || value < 1 || value > runsKeptAtMost)
    throw ZBError(module, "RunHistory",
                  "the setting history.runs must be a whole number from 1 to " + std::to_string(runsKeptAtMost) + ", not " + value.dump());
  return value.get<std::int64_t>();
}

std::int64_t now()
{
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string bounded(const std::string& text) { return vu::validUtf8(std::string_view(text).substr(0, textLimit)); }

Run::Outcome outcomeFor(const std::string& told, const std::string& by)
{
  if (told == "finished")
    return Run::Outcome::Finished;
  if (told == "failed")
    return Run::Outcome::Failed;
  if (told == "shutdown" || by == behaviorManagerName)
    return Run::Outcome::Shutdown;
  return by == packageManagerName ? Run::Outcome::Removed : Run::Outcome::Stopped;
}

} // namespace

RunHistory::RunHistory(std::shared_ptr<ZBBroker> broker, const std::string& name)
    : ZBModule(std::move(broker), name), _database(databaseFile(*getParentBroker(), getName()), runLimit(*getParentBroker(), getName()))
{
  setModuleDescription("Tells which behaviors played when, who started them, and why they ended");

  functionName("getRuns", getName(), "Get the last runs, the newest first");
  addParam("limit", "how many at most");
  setReturn("runs",
            "records: id, behavior, instance, startedBy, begin and end in ms since 1970, outcome, step, message, stoppedBy, reason");
  bindMethod(this, &RunHistory::getRuns);

  functionName("getStatistics", getName(), "Get what has happened since the host started, in numbers");
  setReturn("statistics", "starts, outcomes by name, and the runs' durations in seconds by buckets");
  bindMethod(this, &RunHistory::getStatistics);

  advertiseSignal("runBegan", runBegan);
  advertiseSignal("runEnded", runEnded);

  try
  {
    _lastId = _database.begin();
  }
  catch (const DatabaseError& error)
  {
    _writable = false;
    vu::log::error("runhistory", "RunHistory", std::string("runs are not written down for now: ") + error.what());
  }
  connect();
}

RunHistory::~RunHistory()
{
  // What has been emitted stands in the line, and still gets in.
  _frameManager.delivered().wait(lastNewsLimit);
  for (const auto link : {_startedLink, _endedLink})
    _frameManager.disconnect(link);
  _gate->closeAndDrain();
  while (!_open.empty())
    ended({_open.begin()->first, Run::Outcome::Shutdown, {}, {}, {}});
}

void RunHistory::connect()
{
  try
  {
    _frameManager = getParentBroker()->session()->service("ZBFrameManager").value();
    _startedLink = _frameManager
                       .connect<std::string, std::string, std::string>(
                           "instanceStarted",
                           [this, gate = _gate](const std::string& instance, const std::string& behavior, const std::string& by)
                           {
                             if (const auto pass = gate->enter())
                               began(instance, behavior, by);
                           })
                       .value();
    _endedLink = _frameManager
                     .connect<std::string, std::string, std::string, std::string, std::string, std::string>(
                         "instanceEnded",
                         [this, gate = _gate](const std::string& instance, const std::string&, const std::string& outcome,
                                              const std::string& step, const std::string& message, const std::string& by)
                         {
                           const auto pass = gate->enter();
                           if (!pass)
                             return;
                           const End end{instance, outcomeFor(outcome, by), bounded(step), bounded(message), by};
                           if (ended(end))
                             return;
                           _early.push_back(end);
                           if (_early.size() > earlyEndsKept)
                             _early.pop_front();
                         })
                     .value();
  }
  catch (const vu::ServiceError& error)
  {
    _gate->closeAndDrain(); // for the one that has been connected, perhaps
    throw ZBError(getName(), "RunHistory", std::string("no history can be kept: ") + error.what());
  }
}

void RunHistory::began(const std::string& instance, const std::string& behavior, const std::string& by)
{
  Run run;
  run.id = ++_lastId;
  run.behavior = behavior;
  run.instance = instance;
  run.startedBy = by;
  run.begin = now();
  {
    const std::lock_guard lock(_mutex);
    _open.emplace(instance, OpenRun{run, Clock::now()});
    _unwritten.push_back(run);
    _statistics.began();
  }
  writeDown();
  runBegan(run.toValue());
  const auto early = std::find_if(_early.begin(), _early.end(), [&instance](const End& end) { return end.instance == instance; });
  if (early == _early.end())
    return;
  ended(*early);
  _early.erase(early);
}

bool RunHistory::ended(const End& end)
{
  Run run;
  {
    const std::lock_guard lock(_mutex);
    const auto found = _open.find(end.instance);
    if (found == _open.end())
      return false;
    const auto lasted = Clock::now() - found->second.begin;
    run = std::move(found->second.run);
    _open.erase(found);
    run.end = run.begin + std::chrono::duration_cast<std::chrono::milliseconds>(lasted).count();
    run.outcome = end.outcome;
    run.step = end.step;
    run.message = end.message;
    if (run.outcome == Run::Outcome::Stopped)
      run.stoppedBy = end.by;
    _unwritten.push_back(run);
    _statistics.ended(end.outcome, std::chrono::duration<double>(lasted).count());
  }
  writeDown();
  runEnded(run.toValue());
  return true;
}

/// A fault that lasts is logged once.
void RunHistory::writeDown()
{
  std::unique_lock lock(_mutex);
  try
  {
    while (!_unwritten.empty())
    {
      const auto run = _unwritten.front();
      lock.unlock();
      _database.write(run);
      lock.lock();
      _unwritten.pop_front();
    }
    if (!std::exchange(_writable, true))
      vu::log::info("runhistory", __func__, "runs are written down again");
  }
  catch (const DatabaseError& error)
  {
    lock.lock();
    if (_unwritten.size() > unwrittenKept)
      _unwritten.pop_front();
    if (std::exchange(_writable, false))
      vu::log::error("runhistory", __func__, std::string("runs are not written down for now: ") + error.what());
  }
}

std::vector<vu::Value> RunHistory::getRuns(const int& limit)
{
  if (limit < 1)
    throw ZBError(getName(), "getRuns", "the limit must be 1 or more, not " + std::to_string(limit));
  std::map<std::int64_t, Run, std::greater<>> runs;
  // Of two records of a run, the one that tells its end is the later one.
  const auto put = [&runs](const Run& run)
  {
    const auto [entry, isNew] = runs.try_emplace(run.id, run);
    if (!isNew && entry->second.outcome == Run::Outcome::Running)
      entry->second = run;
  };
  {
    const std::lock_guard lock(_mutex);
    for (const auto& [instance, open] : _open)
      put(open.run);
    for (const auto& run : _unwritten)
      put(run);
  }
  try
  {
    for (const auto& run : _database.newest(static_cast<std::size_t>(limit)))
      put(run);
  }
  catch (const DatabaseError& error)
  {
    vu::log::warning("runhistory", __func__, std::string("only the runs that are not written down are told: ") + error.what());
  }
  std::vector<vu::Value> values;
  for (auto run = runs.begin(); run != runs.end() && values.size() < static_cast<std::size_t>(limit); ++run)
    values.push_back(run->second.toValue());
  return values;
}

vu::Value RunHistory::getStatistics() const
{
  const std::lock_guard lock(_mutex);
  return _statistics.toValue();
}

} // namespace ZB
