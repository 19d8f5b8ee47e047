#include "standins.hpp"

#include <zb/zbbroker.hpp>

namespace ZB::BehaviorManager
{

void StandIn::refuse(const std::string& call, const std::string& text, std::optional<int> nth)
{
  const std::lock_guard lock(_mutex);
  _refusals[call] = {text, nth};
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
    {
      const auto found = _refusals.find(call);
      if (found == _refusals.end())
        continue;
      auto& left = found->second.left;
      if (!left || (*left > 0 && --*left == 0))
        refusal = found->second.text;
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
  method("declareEvent");
  bindMethod(this, &StandInMemory::declareEvent);
  method("raiseMicroEvent");
  bindMethod(this, &StandInMemory::raiseMicroEvent);
  method("subscribeToEvent");
  bindMethod(this, &StandInMemory::subscribeToEvent);
  method("subscribeToMicroEvent");
  bindMethod(this, &StandInMemory::subscribeToMicroEvent);
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
  method("createBehavior");
  bindMethod(this, &StandInFrameManager::createBehavior);
  method("playBehavior");
  bindMethod(this, &StandInFrameManager::playBehavior);
  method("_waitForStopped");
  bindMethod(this, &StandInFrameManager::waitForStopped);
  method("behaviors");
  bindMethod(this, &StandInFrameManager::behaviors);
  method("deleteBehavior");
  bindMethod(this, &StandInFrameManager::deleteBehavior);
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
  _held = true;
}

void StandInFrameManager::release()
{
  decltype(_heldReports) reports;
  {
    const std::lock_guard lock(_framesMutex);
    _held = false;
    reports.swap(_heldReports);
  }
  for (const auto& [id, failure] : reports)
    report(id, failure);
}

std::set<std::string> StandInFrameManager::behaviors()
{
  enter("behaviors");
  const std::lock_guard lock(_framesMutex);
  std::set<std::string> ids;
  for (const auto& [id, name] : _names)
    ids.insert(id);
  return ids;
}

std::vector<std::string> StandInFrameManager::lastCreateArguments() const
{
  const std::lock_guard lock(_framesMutex);
  return _createArguments;
}

std::string StandInFrameManager::createBehavior(const std::string& directory, const std::string& file, const std::string& name)
{
  journal().add("frames createBehavior " + name);
  enter("createBehavior", name);
  if (directory.empty() || directory.front() != '/')
    throw ZBError("ZBFrameManager", "createBehavior", "'" + directory + "' is no absolute directory");
  const std::lock_guard lock(_framesMutex);
  _createArguments = {directory, file, name};
  const auto id = "fm-" + std::to_string(++_lastId);
  _names[id] = name;
  return id;
}

void StandInFrameManager::playBehavior(const std::string& id)
{
  journal().add("frames playBehavior " + id);
  auto script = Script::Play;
  {
    const std::lock_guard lock(_framesMutex);
    const auto found = _names.find(id);
    if (found == _names.end())
      throw ZBError("ZBFrameManager", "playBehavior", "there is no behavior " + id);
    if (const auto entry = _scripts.find(found->second); entry != _scripts.end())
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
  const vu::Promise<void> promise(getParentBroker()->pool());
  const auto outcome = _outcomes.find(id);
  if (_names.count(id) != 0 || _ending.count(id) != 0)
    _waits.emplace(id, promise);
  else if (outcome != _outcomes.end() && outcome->second)
    promise.setError(*outcome->second);
  else
    promise.setValue();
  return promise.future();
}

void StandInFrameManager::deleteBehavior(const std::string& id)
{
  journal().add("frames deleteBehavior " + id);
  enter("deleteBehavior", id);
  {
    const std::lock_guard lock(_framesMutex);
    if (_names.count(id) == 0)
      throw ZBError("ZBFrameManager", "deleteBehavior", "there is no behavior " + id);
  }
  end(id);
}

void StandInFrameManager::end(const std::string& id, const std::optional<std::string>& failure)
{
  {
    const std::lock_guard lock(_framesMutex);
    if (_names.erase(id) == 0)
      return;
    _ending.insert(id);
    if (_held)
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
  std::vector<vu::Promise<void>> waits;
  {
    const std::lock_guard lock(_framesMutex);
    _ending.erase(id);
    _outcomes[id] = failure;
    const auto [first, last] = _waits.equal_range(id);
    for (auto wait = first; wait != last; ++wait)
      waits.push_back(wait->second);
    _waits.erase(first, last);
  }
  for (const auto& wait : waits)
    if (failure)
      wait.setError(*failure);
    else
      wait.setValue();
}

StandInPackageManager::StandInPackageManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal,
                                             std::vector<vu::PackageInfo> packages)
    : StandIn(std::move(broker), name, journal), _packages(std::move(packages))
{
  method("packages");
  bindMethod(this, &StandInPackageManager::packages);
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
  method("readPrefFile");
  bindMethod(this, &StandInPreferences::readPrefFile);
  method("writePrefFile");
  bindMethod(this, &StandInPreferences::writePrefFile);
}

void StandInPreferences::setFile(const ZBValue& settings)
{
  const std::lock_guard lock(_fileMutex);
  _file = settings;
}

vu::Value StandInPreferences::file() const
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
