#include <zbframemanager.hpp>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include <childprocess.hpp>
#include <projectreader.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

using FrameManager::BehaviorInstance;
using FrameManager::Outcome;
using FrameManager::PlaySettings;

namespace
{

constexpr std::size_t failuresRemembered = 10000;
constexpr std::size_t threads = 2;

std::shared_ptr<const PlaySettings> makeSettings(const ZBBroker& broker, std::shared_ptr<vu::Gate> gate)
{
  const auto& configuration = broker.configuration();
  PlaySettings settings;
  settings.session = broker.session();
  settings.gate = std::move(gate);
  std::vector<std::string> variables;
  if (configuration.contains("url"))
    variables.push_back("TARVIK_URL=" + configuration.at("url").get<std::string>());
  if (configuration.contains("tokenFile"))
    variables.push_back("TARVIK_TOKEN_FILE=" + configuration.at("tokenFile").get<std::string>());
  settings.environment = FrameManager::environmentWith(variables);
  const vu::Value::json_pointer grace("/framemanager/terminateGraceMs");
  if (configuration.contains(grace))
  {
    const auto& value = configuration.at(grace);
    if (!value.is_number_integer() || value < 0 || value > 600000)
      throw ZBError("ZBFrameManager", "ZBFrameManager",
                    "the setting framemanager.terminateGraceMs must be a whole number from 0 to 600000, not " + value.dump());
    settings.terminateGrace = std::chrono::milliseconds(value.get<int>());
  }
  return std::make_shared<const PlaySettings>(std::move(settings));
}

} // namespace

ZBFrameManager::ZBFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name)
    : ZBModule(std::move(broker), name), _gate(std::make_shared<vu::Gate>()), _settings(makeSettings(*getParentBroker(), _gate)),
      _pool(threads)
{
  setModuleDescription("Plays behaviors from their project files");

  functionName("createBehavior", getName(), "Reads a project whole and makes an instance of it, ready to be played");
  addParam("packageDirectory", "Absolute path of the package's directory");
  addParam("projectFile", "Path of the project file, relative to the package's directory and inside it");
  addParam("name", "Name of the behavior, for the log");
  setReturn("id", "Id of the instance, never used again");
  bindMethod(this, &ZBFrameManager::createBehavior);

  functionName("playBehavior", getName(), "Begins to play an instance, which can be done once, and returns at once");
  addParam("id", "Id of the instance");
  bindMethod(this, &ZBFrameManager::playBehavior);

  functionName("_waitForStopped", getName(), "Waits for the end of an instance; fails with the reason where the instance failed");
  addParam("id", "Id of the instance; one that is not held any more counts as stopped");
  setReturn("stopped", "Completes when the instance has ended and its end has been signalled");
  bindMethod(this, &ZBFrameManager::waitForStopped);

  functionName("behaviors", getName(), "Lists the instances that are held, played or not");
  setReturn("ids", "Ids of the instances");
  bindMethod(this, &ZBFrameManager::behaviors);

  functionName("deleteBehavior", getName(), "Stops an instance, ends its processes and lets go of it; returns when this is done");
  addParam("id", "Id of the instance");
  bindMethod(this, &ZBFrameManager::deleteBehavior);

  advertiseSignal("behaviorStopped", behaviorStopped);
  advertiseSignal("behaviorFailed", behaviorFailed);
}

ZBFrameManager::~ZBFrameManager()
{
  std::vector<std::pair<std::string, std::shared_ptr<BehaviorInstance>>> held;
  {
    const std::lock_guard lock(_mutex);
    for (const auto& [id, entry] : _entries)
      if (entry.instance)
        held.emplace_back(id, entry.instance);
  }
  for (const auto& [id, instance] : held)
    instance->stop();
  for (const auto& [id, instance] : held)
    conclude(id, instance->ended().value());
  // Ends that the broker's pool is announcing, and answers to steps that have gone.
  _gate->closeAndDrain();
}

std::string ZBFrameManager::createBehavior(const std::string& packageDirectory, const std::string& projectFile, const std::string& name)
{
  std::shared_ptr<const FrameManager::Project> project;
  try
  {
    project = std::make_shared<const FrameManager::Project>(FrameManager::readProject(packageDirectory, projectFile));
  }
  catch (const std::exception& error)
  {
    throw ZBError(getName(), "createBehavior", error.what());
  }
  const auto& continuations = getParentBroker()->pool();
  auto instance = std::make_shared<BehaviorInstance>(_settings, std::move(project), name, _pool.makeStrand(), continuations);
  std::string id;
  {
    const std::lock_guard lock(_mutex);
    id = "fm-" + std::to_string(++_lastId);
    _entries.emplace(id, Entry{instance, vu::Promise<void>(continuations)});
  }
  instance->ended().then(
      [this, gate = _gate, id](const vu::Future<Outcome>& ended)
      {
        if (const auto pass = gate->enter())
          conclude(id, ended.value());
      });
  return id;
}

void ZBFrameManager::playBehavior(const std::string& id)
{
  if (!instance(id, "playBehavior")->play())
    throw ZBError(getName(), "playBehavior", "the behavior " + id + " is playing already");
}

vu::Future<void> ZBFrameManager::waitForStopped(const std::string& id)
{
  const std::lock_guard lock(_mutex);
  const auto found = _entries.find(id);
  return found == _entries.end() ? vu::makeReadyFuture<void>({}, getParentBroker()->pool()) : found->second.stopped.future();
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
  deleted->stop();
  conclude(id, deleted->ended().value());
}

std::shared_ptr<BehaviorInstance> ZBFrameManager::instance(const std::string& id, const std::string& method) const
{
  const std::lock_guard lock(_mutex);
  const auto found = _entries.find(id);
  if (found == _entries.end() || !found->second.instance)
    throw ZBError(getName(), method, "there is no behavior " + id + "; it may have ended");
  return found->second.instance;
}

void ZBFrameManager::conclude(const std::string& id, const Outcome& outcome)
{
  std::shared_ptr<BehaviorInstance> instance;
  {
    const std::lock_guard lock(_mutex);
    const auto found = _entries.find(id);
    if (found == _entries.end() || !found->second.instance)
      return;
    instance = std::move(found->second.instance);
  }
  if (outcome)
    behaviorFailed(id, outcome->step, outcome->message);
  behaviorStopped(id);

  // The entry stays until here, so that whoever comes meanwhile waits for the emissions.
  const auto stopped = [this, &id, &outcome]
  {
    const std::lock_guard lock(_mutex);
    auto promise = _entries.at(id).stopped;
    if (!outcome)
      _entries.erase(id);
    else
      _failures.push_back(id);
    if (_failures.size() > failuresRemembered)
    {
      _entries.erase(_failures.front());
      _failures.pop_front();
    }
    return promise;
  }();
  if (outcome)
    stopped.setError(outcome->message);
  else
    stopped.setValue();
}

} // namespace ZB
