#include <zbframemanager.hpp>

#include <sstream>
#include <stdexcept>

#include <boost/asio/post.hpp>

#include <zb/calllog.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

using FrameManager::BehaviorInstance;
using FrameManager::Ending;
using FrameManager::PlaySettings;

namespace
{

constexpr std::size_t failuresRemembered = 10000;
constexpr std::size_t threads = 2;
/// Beyond the grace, for the end of a stop; what cannot be killed is given up before.
constexpr std::chrono::seconds endLimit(10);

std::string seconds(std::chrono::milliseconds duration)
{
  std::ostringstream text;
  text << std::chrono::duration<double>(duration).count() << " s";
  return text.str();
}

const char* outcomeName(Ending::Kind kind)
{
  switch (kind)
  {
  case Ending::Kind::Finished:
    return "finished";
  case Ending::Kind::Failed:
    return "failed";
  case Ending::Kind::Stopped:
    return "stopped";
  case Ending::Kind::Shutdown:
    break;
  }
  return "shutdown";
}

std::shared_ptr<const PlaySettings> makeSettings(const ZBBroker& broker, std::shared_ptr<vu::Gate> gate)
{
  try
  {
    auto settings = FrameManager::readSettings(broker.configuration());
    settings.session = broker.session();
    settings.calls = std::make_shared<const CallGate>(broker.session(), logCalls("framemanager"));
    settings.eventCalls = std::make_shared<const CallGate>(broker.session(), logCalls("framemanager", vu::log::Level::Debug));
    settings.gate = std::move(gate);
    return std::make_shared<const PlaySettings>(std::move(settings));
  }
  catch (const std::invalid_argument& error)
  {
    throw ZBError("ZBFrameManager", "ZBFrameManager", error.what());
  }
}

} // namespace

ZBFrameManager::ZBFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name)
    : ZBModule(std::move(broker), name), _gate(std::make_shared<vu::Gate>()), _settings(makeSettings(*getParentBroker(), _gate)),
      _loader(_settings->createTimeout), _lastEnds(vu::Line::create(getParentBroker()->pool(), "ends of behaviors")), _pool(threads)
{
  setModuleDescription("Plays behaviors from their project files");

  functionName("createBehavior", getName(),
               "Reads a project whole, with the rights that its package asks for, and makes an instance of it, ready to be played");
  addParam("packageDirectory", "Absolute path of the package's directory");
  addParam("projectFile", "Path of the project file, relative to the package's directory and inside it");
  addParam("name", "Name of the behavior, for the log and the history");
  setReturn("id", "Id of the instance, never used again");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBFrameManager::createBehavior);

  functionName("playBehavior", getName(), "Begins to play an instance, which can be done once, and returns at once");
  addParam("id", "Id of the instance");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBFrameManager::playBehavior);

  functionName("_waitForStopped", getName(), "Waits for the end of an instance; fails with the reason where the instance failed");
  addParam("id", "Id of the instance; one that is not held any more counts as stopped");
  setReturn("stopped", "Completes when the instance has ended and its end has been signalled");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBFrameManager::waitForStopped);

  functionName("behaviors", getName(), "Lists the instances that are held, played or not");
  setReturn("ids", "Ids of the instances");
  bindMethod(this, &ZBFrameManager::behaviors);

  functionName("deleteBehavior", getName(), "Stops an instance, ends its processes and lets go of it; returns when this is done");
  addParam("id", "Id of the instance");
  setAccess(vu::Role::Admin);
  setUrgent();
  bindMethod(this, &ZBFrameManager::deleteBehavior);

  functionName("_beginClosing", getName(), "Stops all instances and refuses further ones, for a host that shuts down. INTERNAL");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBFrameManager::beginClosing);

  functionName("_ping", getName(), "Completes once the threads that behaviors play on have come to it. INTERNAL");
  setReturn("answered", "Completes then");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBFrameManager::ping);

  functionName("getLinesLeftOut", getName(), "Get how many lines behaviors have printed beyond what one may");
  setReturn("lines", "Lines that are in no log, since the start");
  bindMethod(this, &ZBFrameManager::linesLeftOut);

  advertiseSignal("behaviorStopped", behaviorStopped);
  advertiseSignal("behaviorFailed", behaviorFailed);
  advertiseSignal("instanceStarted", instanceStarted);
  advertiseSignal("instanceEnded", instanceEnded);
}

ZBFrameManager::~ZBFrameManager()
{
  beginClosing();
  for (const auto& [id, instance] : held())
    conclude(id, instance->ended().value());
  // Ends that the broker's pool is announcing, and answers to steps that have gone.
  _gate->closeAndDrain();
}

void ZBFrameManager::beginClosing()
{
  {
    const std::lock_guard lock(_mutex);
    if (std::exchange(_closing, true))
      return;
  }
  *_settings->closing = true;
  _loader.close();
  for (const auto& [id, instance] : held())
    instance->stop(Ending::Kind::Shutdown);
}

vu::Future<void> ZBFrameManager::ping()
{
  const vu::Promise<void> answered(getParentBroker()->pool());
  boost::asio::post(_pool.makeStrand(), [answered] { answered.setValue(); });
  return answered.future();
}

std::int64_t ZBFrameManager::linesLeftOut() const { return static_cast<std::int64_t>(_settings->linesLeftOut->load()); }

ZBFrameManager::Instances ZBFrameManager::held() const
{
  const std::lock_guard lock(_mutex);
  Instances instances;
  for (const auto& [id, entry] : _entries)
    if (entry.instance)
      instances.emplace_back(id, entry.instance);
  return instances;
}

void ZBFrameManager::refuseWhenClosing(const std::string& method) const
{
  if (_closing)
    throw ZBError(getName(), method, "the host is shutting down");
}

std::string ZBFrameManager::createBehavior(const std::string& packageDirectory, const std::string& projectFile, const std::string& name)
{
  std::shared_ptr<const FrameManager::LoadedBehavior> behavior;
  try
  {
    behavior = _loader.load(packageDirectory, projectFile);
  }
  catch (const std::exception& error)
  {
    throw ZBError(getName(), "createBehavior", error.what());
  }
  const auto& continuations = getParentBroker()->pool();
  auto instance = std::make_shared<BehaviorInstance>(_settings, std::move(behavior), name, _pool.makeStrand(), continuations);
  std::string id;
  {
    const std::lock_guard lock(_mutex);
    refuseWhenClosing("createBehavior");
    id = "fm-" + std::to_string(++_lastId);
    _entries.emplace(id, Entry{instance, vu::Promise<void>(continuations)});
  }
  instance->ended().then(
      [this, gate = _gate, settings = _settings, line = _lastEnds, id](const vu::Future<Ending>& ended)
      {
        const auto announce = [this, gate, id, ended]
        {
          if (const auto pass = gate->enter())
            conclude(id, ended.value());
        };
        if (*settings->closing)
          line->push(announce);
        else
          announce();
      });
  return id;
}

void ZBFrameManager::playBehavior(const std::string& id)
{
  const auto played = instance(id, "playBehavior");
  {
    const std::lock_guard lock(_mutex);
    refuseWhenClosing("playBehavior");
  }
  if (!played->takeTurn())
    throw ZBError(getName(), "playBehavior", "the behavior " + id + " is playing already");
  instanceStarted(id, played->name(), vu::currentCaller());
  if (played->play(_settings->playTimeout))
    return;
  played->stop(Ending::Kind::Stopped, vu::currentCaller());
  throw ZBError(getName(), "playBehavior",
                "the behavior " + id + " has not begun within " + seconds(_settings->playTimeout) +
                    " and was stopped: something holds the threads that behaviors play on");
}

vu::Future<void> ZBFrameManager::waitForStopped(const std::string& id)
{
  const std::lock_guard lock(_mutex);
  if (const auto found = _entries.find(id); found != _entries.end())
    return found->second.stopped.future();
  const vu::Promise<void> ended(getParentBroker()->pool());
  if (const auto failure = _failures.find(id); failure != _failures.end())
    ended.setError(failure->second);
  else
    ended.setValue();
  return ended.future();
}

std::set<std::string> ZBFrameManager::behaviors() const
{
  const std::lock_guard lock(_mutex);
  std::set<std::string> ids;
  for (const auto& [id, entry] : _entries)
    if (entry.instance)
      ids.insert(id);
  return ids;
}

void ZBFrameManager::deleteBehavior(const std::string& id)
{
  const auto deleted = instance(id, "deleteBehavior");
  const auto announced = waitForStopped(id);
  deleted->stop(Ending::Kind::Stopped, vu::currentCaller());
  if (const auto limit = _settings->terminateGrace + endLimit; !deleted->ended().wait(limit))
    throw ZBError(getName(), "deleteBehavior", "the behavior " + id + " has not ended within " + seconds(limit));
  conclude(id, deleted->ended().value());
  announced.wait(); // it may be the pool that emits the signals
  if (const auto left = deleted->ended().value().leftAlone; !left.empty())
    throw ZBError(getName(), "deleteBehavior", "not all of the behavior " + id + " has ended: " + left);
}

std::shared_ptr<BehaviorInstance> ZBFrameManager::instance(const std::string& id, const std::string& method) const
{
  const std::lock_guard lock(_mutex);
  const auto found = _entries.find(id);
  if (found == _entries.end() || !found->second.instance)
    throw ZBError(getName(), method, "there is no behavior " + id + "; it may have ended");
  return found->second.instance;
}

void ZBFrameManager::conclude(const std::string& id, const Ending& ending)
{
  std::shared_ptr<BehaviorInstance> instance;
  {
    const std::lock_guard lock(_mutex);
    const auto found = _entries.find(id);
    if (found == _entries.end() || !found->second.instance)
      return;
    instance = std::move(found->second.instance);
  }
  instance->endToken();
  const auto& [kind, failure, by, leftAlone] = ending;
  const bool failed = kind == Ending::Kind::Failed;
  if (failed)
    behaviorFailed(id, failure.step, failure.message);
  instanceEnded(id, instance->name(), outcomeName(kind), failure.step, failed ? failure.message : leftAlone, by);
  behaviorStopped(id);

  // The entry stays until here, so that whoever comes meanwhile waits for the emissions.
  const auto stopped = [&, &failure = failure]
  {
    const std::lock_guard lock(_mutex);
    auto promise = _entries.at(id).stopped;
    _entries.erase(id);
    if (failed)
      _failuresByAge.push_back(_failures.emplace(id, failure.message).first);
    if (_failures.size() > failuresRemembered)
    {
      _failures.erase(_failuresByAge.front());
      _failuresByAge.pop_front();
    }
    return promise;
  }();
  if (failed)
    stopped.setError(failure.message);
  else
    stopped.setValue();
}

} // namespace ZB
