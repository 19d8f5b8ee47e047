#include "standins.hpp"

#include <zb/zbbroker.hpp>

namespace ZB::BehaviorManager
{

void StandIn::refuse(const std::string& call, const std::string& text, Times times)
{
  const std::lock_guard lock(_mutex);
  _refusals[call] = {text, times};
}

void StandIn::acceptAll()
{
  const std::lock_guard lock(_mutex);
  _refusals.clear();
}

void StandIn::during(const std::string& method, std::function<void()> action)
{
  const std::lock_guard lock(_mutex);
  _actions[method] = std::move(action);
}

void StandIn::enter(const std::string& method, const std::string& argument)
{
  std::function<void()> action;
  std::optional<std::string> refusal;
  {
    const std::lock_guard lock(_mutex);
    if (const auto found = _actions.find(method); found != _actions.end())
      action = found->second;
    for (const auto& call : {method, method + " " + argument})
      if (const auto found = _refusals.find(call); found != _refusals.end())
      {
        refusal = found->second.first;
        if (found->second.second == Once)
          _refusals.erase(found);
      }
  }
  if (action)
    action();
  if (refusal)
    throw ZBError(getName(), method, *refusal);
}

StandInMemory::StandInMemory(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal)
    : StandIn(std::move(broker), name, journal)
{
  bind("declareEvent", this, &StandInMemory::declareEvent);
  bind("raiseMicroEvent", this, &StandInMemory::raiseMicroEvent);
  bind("subscribeToEvent", this, &StandInMemory::subscribeToEvent);
  bind("subscribeToMicroEvent", this, &StandInMemory::subscribeToMicroEvent);
}

void StandInMemory::declareEvent(const std::string& key)
{
  journal().add("memory declareEvent " + key);
  enter("declareEvent", key);
}

void StandInMemory::raiseMicroEvent(const std::string& key, const ZBValue& value)
{
  enter("raiseMicroEvent", key);
  journal().add("event " + key + " " + value.value().dump());
}

void StandInMemory::subscribeToEvent(const std::string& key, const std::string& module, const std::string& message,
                                     const std::string& method)
{
  journal().add("memory subscribeToEvent " + key + " " + module + " '" + message + "' " + method);
  enter("subscribeToEvent", key);
}

void StandInMemory::subscribeToMicroEvent(const std::string& key, const std::string& module, const std::string& message,
                                          const std::string& method)
{
  journal().add("memory subscribeToMicroEvent " + key + " " + module + " '" + message + "' " + method);
  enter("subscribeToMicroEvent", key);
}

StandInFrameManager::StandInFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal)
    : StandIn(std::move(broker), name, journal)
{
  bind("createBehavior", this, &StandInFrameManager::createBehavior);
  bind("playBehavior", this, &StandInFrameManager::playBehavior);
  bind("_waitForStopped", this, &StandInFrameManager::waitForStopped);
  bind("behaviors", this, &StandInFrameManager::behaviors);
  bind("deleteBehavior", this, &StandInFrameManager::deleteBehavior);
  advertiseSignal("behaviorStopped", _stopped);
  advertiseSignal("behaviorFailed", _failed);
}

void StandInFrameManager::script(const std::string& behavior, Script script)
{
  const std::lock_guard lock(_framesMutex);
  _scripts[behavior] = script;
}

void StandInFrameManager::hold()
{
  const std::lock_guard lock(_framesMutex);
  _holding = true;
}

void StandInFrameManager::release()
{
  decltype(_heldReports) reports;
  {
    const std::lock_guard lock(_framesMutex);
    _holding = false;
    reports.swap(_heldReports);
  }
  for (const auto& [id, failure] : reports)
    report(id, failure);
}

std::set<std::string> StandInFrameManager::behaviors()
{
  enter("behaviors");
  const std::lock_guard lock(_framesMutex);
  return _held;
}

std::string StandInFrameManager::createBehavior(const std::string& directory, const std::string& file, const std::string& name)
{
  journal().add("frames createBehavior " + name + " " + directory.substr(directory.find_last_of('/') + 1) + ":" + file);
  enter("createBehavior", name);
  if (directory.empty() || directory.front() != '/')
    throw ZBError("ZBFrameManager", "createBehavior", "'" + directory + "' is no absolute directory");
  const std::lock_guard lock(_framesMutex);
  const auto id = "fm-" + std::to_string(++_lastId);
  _instances.emplace(id, Instance{name, vu::Promise<void>(getParentBroker()->pool())});
  _held.insert(id);
  return id;
}

void StandInFrameManager::playBehavior(const std::string& id)
{
  journal().add("frames playBehavior " + id);
  auto script = Script::Play;
  {
    const std::lock_guard lock(_framesMutex);
    if (_held.count(id) == 0)
      throw ZBError("ZBFrameManager", "playBehavior", "there is no behavior " + id);
    if (const auto entry = _scripts.find(_instances.at(id).name); entry != _scripts.end())
      script = entry->second;
  }
  if (script == Script::EndInPlay)
    end(id);
  else if (script == Script::FailInPlay)
    end(id, "no arm");
  enter("playBehavior", id); // behind the end, so that a test can wait for its report in here
  if (script == Script::RefuseToPlay)
    throw ZBError("ZBFrameManager", "playBehavior", "refused");
}

vu::Future<void> StandInFrameManager::waitForStopped(const std::string& id)
{
  enter("_waitForStopped", id);
  const std::lock_guard lock(_framesMutex);
  const auto found = _instances.find(id);
  return found == _instances.end() ? vu::makeReadyFuture<void>({}, getParentBroker()->pool()) : found->second.ended.future();
}

void StandInFrameManager::deleteBehavior(const std::string& id)
{
  journal().add("frames deleteBehavior " + id);
  enter("deleteBehavior", id);
  if (behaviors().count(id) == 0)
    throw ZBError("ZBFrameManager", "deleteBehavior", "there is no behavior " + id);
  end(id);
}

void StandInFrameManager::end(const std::string& id, const std::optional<std::string>& failure)
{
  {
    const std::lock_guard lock(_framesMutex);
    if (_held.erase(id) == 0)
      return;
    if (_holding)
    {
      _heldReports.emplace_back(id, failure);
      return;
    }
  }
  report(id, failure);
}

void StandInFrameManager::report(const std::string& id, const std::optional<std::string>& failure)
{
  if (failure)
    _failed(id, "the step", *failure);
  enter("stopped", id);
  _stopped(id);
  const auto ended = [&]
  {
    const std::lock_guard lock(_framesMutex);
    return _instances.at(id).ended;
  }();
  if (failure)
    ended.setError(*failure);
  else
    ended.setValue();
}

StandInPackageManager::StandInPackageManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal,
                                             std::vector<vu::PackageInfo> packages)
    : StandIn(std::move(broker), name, journal), _packages(std::move(packages))
{
  bind("packages", this, &StandInPackageManager::packages);
}

std::vector<vu::PackageInfo> StandInPackageManager::packages()
{
  journal().add("packages packages");
  enter("packages");
  return _packages;
}

StandInPreferences::StandInPreferences(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal)
    : StandIn(std::move(broker), name, journal)
{
  bind("readPrefFile", this, &StandInPreferences::readPrefFile);
  bind("writePrefFile", this, &StandInPreferences::writePrefFile);
}

void StandInPreferences::setFile(const ZBValue& settings)
{
  const std::lock_guard lock(_fileMutex);
  _file = settings;
}

vu::Value StandInPreferences::file()
{
  const std::lock_guard lock(_fileMutex);
  return _file ? _file->value() : vu::Value();
}

ZBValue StandInPreferences::readPrefFile(const std::string& name, bool flag)
{
  journal().add("preferences read " + name + (flag ? " true" : " false"));
  enter("readPrefFile");
  const std::lock_guard lock(_fileMutex);
  if (!_file)
    throw ZBError("ZBPreferences", "readPrefFile", "there is no file " + name);
  return *_file;
}

void StandInPreferences::writePrefFile(const std::string& name, const ZBValue& settings, bool flag)
{
  journal().add("preferences write " + name + (flag ? " true" : " false"));
  enter("writePrefFile");
  setFile(settings);
}

} // namespace ZB::BehaviorManager
