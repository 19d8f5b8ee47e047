#include <runhistory.hpp>

#include <algorithm>
#include <cstdlib>
#include <ctime>
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
constexpr std::chrono::seconds retryInterval(1);
constexpr std::int64_t leastClockChange = 60'000; // in ms; smaller ones are left to the reader
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

std::int64_t inMilliseconds(std::chrono::nanoseconds time) { return std::chrono::duration_cast<std::chrono::milliseconds>(time).count(); }

/// Of a clock that nobody sets and that goes on while the machine sleeps.
std::int64_t sinceBoot()
{
  timespec time{};
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return inMilliseconds(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
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

RunHistory::RunHistory(std::shared_ptr<ZBBroker> broker, const std::string& name, Now now)
    : ZBModule(std::move(broker), name), _now(std::move(now)),
      _database(databaseFile(*getParentBroker(), getName()), runLimit(*getParentBroker(), getName()))
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

  _clockAhead = _now() - sinceBoot();
  writeDown();
  connect();
}

std::int64_t RunHistory::systemNow() { return inMilliseconds(std::chrono::system_clock::now().time_since_epoch()); }

RunHistory::~RunHistory()
{
  // What has been emitted stands in the line, and still gets in.
  _frameManager.delivered().wait(lastNewsLimit);
  for (const auto link : {_startedLink, _endedLink})
    _frameManager.disconnect(link);
  _gate->closeAndDrain();
  {
    const std::lock_guard writes(_writes);
    _nextTry = Clock::time_point::max(); // all ends are written at once
  }
  while (!_open.empty())
    ended({_open.begin()->first, Run::Outcome::Shutdown, {}, {}, {}});
  writeDown(true);
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
  {
    const std::lock_guard lock(_mutex);
    followClock();
    Run run;
    run.id = ++_lastId;
    run.behavior = behavior;
    run.instance = instance;
    run.startedBy = by;
    run.begin = _now();
    _open.emplace(instance, OpenRun{run, Clock::now()});
    _unwritten.push_back(run);
    _statistics.began();
  }
  writeDown();
  const auto told = [this, &instance] // the id is another one, perhaps
  {
    const std::lock_guard lock(_mutex);
    return _open.at(instance).run.toValue();
  }();
  runBegan(told);
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
    followClock();
    const auto found = _open.find(end.instance);
    if (found == _open.end())
      return false;
    const auto lasted = Clock::now() - found->second.begin;
    run = std::move(found->second.run);
    _open.erase(found);
    run.end = run.begin + inMilliseconds(lasted);
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

void RunHistory::followClock()
{
  const auto ahead = _now() - sinceBoot();
  const auto change = ahead - std::exchange(_clockAhead, ahead);
  if (std::abs(change) < leastClockChange)
    return;
  for (auto& [instance, open] : _open)
  {
    open.run.begin += change;
    _unwritten.push_back(open.run);
  }
}

/// A fault that lasts is logged once.
void RunHistory::writeDown(bool must)
{
  const std::lock_guard writes(_writes);
  if (!must && Clock::now() < _nextTry)
    return;
  try
  {
    takeUp();
    const auto runs = [this]
    {
      const std::lock_guard lock(_mutex);
      return std::vector<Run>(_unwritten.begin(), _unwritten.end());
    }();
    if (!runs.empty())
      _database.write(runs);
    const std::lock_guard lock(_mutex);
    _unwritten.erase(_unwritten.begin(), _unwritten.begin() + static_cast<std::ptrdiff_t>(runs.size()));
    if (!std::exchange(_writable, true))
      vu::log::info("runhistory", __func__, "runs are written down again");
  }
  catch (const DatabaseError& error)
  {
    _nextTry = Clock::now() + retryInterval;
    const std::lock_guard lock(_mutex);
    if (_unwritten.size() > unwrittenKept)
      _unwritten.erase(_unwritten.begin(), _unwritten.end() - unwrittenKept);
    if (std::exchange(_writable, false))
      vu::log::error("runhistory", __func__, std::string("runs are not written down for now: ") + error.what());
    tryLater();
  }
}

void RunHistory::takeUp()
{
  if (_takenUp)
    return;
  const auto before = _database.begin(_now());
  const std::lock_guard lock(_mutex);
  for (auto& [instance, open] : _open)
    open.run.id += before;
  for (auto& run : _unwritten)
    run.id += before;
  _lastId += before;
  _takenUp = true;
}

void RunHistory::tryLater()
{
  if (std::exchange(_triesLater, true))
    return;
  getParentBroker()->pool()->postAfter(std::chrono::duration_cast<std::chrono::milliseconds>(retryInterval),
                                       [this, gate = _gate]
                                       {
                                         const auto pass = gate->enter();
                                         if (!pass)
                                           return;
                                         {
                                           const std::lock_guard writes(_writes);
                                           _triesLater = false;
                                         }
                                         writeDown(true);
                                       });
}

std::vector<vu::Value> RunHistory::getRuns(const int& limit)
{
  if (limit < 1)
    throw ZBError(getName(), "getRuns", "the limit must be 1 or more, not " + std::to_string(limit));
  writeDown();
  std::map<std::int64_t, Run, std::greater<>> runs;
  // Of two records of a run, the one that tells its end is the later one.
  const auto put = [&runs](const Run& run)
  {
    const auto [entry, isNew] = runs.try_emplace(run.id, run);
    if (!isNew && entry->second.outcome == Run::Outcome::Running)
      entry->second = run;
  };
  bool takenUp = false;
  {
    const std::lock_guard lock(_mutex);
    for (const auto& [instance, open] : _open)
      put(open.run);
    for (const auto& run : _unwritten)
      put(run);
    takenUp = _takenUp;
  }
  try
  {
    // Its ids are others before it has been taken up.
    if (takenUp)
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
