#include "standins.hpp"

#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB::BehaviorManager
{

void Interruptions::during(const std::string& call, std::function<void()> action)
{
  const std::lock_guard lock(_mutex);
  _actions[call] = std::move(action);
}

void Interruptions::enter(const std::string& name, const std::string& argument)
{
  for (const auto& call : {name, name + " " + argument})
  {
    std::unique_lock lock(_mutex);
    const auto found = _actions.extract(call);
    lock.unlock();
    if (found)
      found.mapped()();
  }
}

StandIn::StandIn(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal, const std::function<void(StandIn&)>& offerAll)
    : ZBModule(std::move(broker), name), _journal(journal)
{
  if (offerAll)
    offerAll(*this);
}

void StandIn::refuse(const std::string& call, const std::string& text)
{
  during(call, [this, call, text] { throw ZBError(getName(), call.substr(0, call.find(' ')), text); });
}

void StandIn::called(const std::string& method, const vu::Value& arguments)
{
  enter(method, arguments.empty() || !arguments[0].is_string() ? "" : arguments[0]);
  _journal.add(method + " " + arguments.dump());
}

StandInFrameManager::StandInFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal)
    : StandIn(std::move(broker), name, journal)
{
  offer("createBehavior",
        [this](const std::string& directory, const std::string&, const std::string& behavior) { return create(directory, behavior); });
  offer("playBehavior", [this](const std::string& id) { play(id); });
  offer("_waitForStopped", [this](const std::string& id) { return waitForStopped(id); });
  offer("behaviors", [this] { return behaviors(); });
  offer("deleteBehavior",
        [this](const std::string& id)
        {
          if (!end(id))
            throw ZBError("ZBFrameManager", "deleteBehavior", "there is no behavior " + id);
        });
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
  const std::lock_guard lock(_framesMutex);
  return _held;
}

std::string StandInFrameManager::create(const std::string& directory, const std::string& name)
{
  if (!directory.starts_with('/'))
    throw ZBError("ZBFrameManager", "createBehavior", "'" + directory + "' is no absolute directory");
  const std::lock_guard lock(_framesMutex);
  if (_scripts[name] == Script::RefuseToLoad)
    throw ZBError("ZBFrameManager", "createBehavior", "refused");
  const auto id = "fm-" + std::to_string(++_lastId);
  _instances.emplace(id, Instance{name, vu::Promise<void>(getParentBroker()->pool())});
  _held.insert(id);
  return id;
}

vu::Future<void> StandInFrameManager::waitForStopped(const std::string& id)
{
  const std::lock_guard lock(_framesMutex);
  const auto found = _instances.find(id);
  return found == _instances.end() ? vu::makeReadyFuture<void>({}, getParentBroker()->pool()) : found->second.ended.future();
}

void StandInFrameManager::play(const std::string& id)
{
  auto script = Script::Play;
  {
    const std::lock_guard lock(_framesMutex);
    if (_held.count(id) == 0)
      throw ZBError("ZBFrameManager", "playBehavior", "there is no behavior " + id);
    script = _scripts[_instances.at(id).name];
  }
  if (script == Script::EndInPlay)
    end(id);
  else if (script == Script::FailInPlay)
    end(id, "no arm");
  enter("played", id);
  if (script == Script::RefuseToPlay)
    throw ZBError("ZBFrameManager", "playBehavior", "refused");
}

bool StandInFrameManager::end(const std::string& id, const Failure& failure)
{
  {
    const std::lock_guard lock(_framesMutex);
    if (_held.erase(id) == 0)
      return false;
    if (_holding)
    {
      _heldReports.emplace_back(id, failure);
      return true;
    }
  }
  report(id, failure);
  return true;
}

void StandInFrameManager::report(const std::string& id, const Failure& failure)
{
  if (failure)
    _failed(id, "the step", *failure);
  enter("stopped", id);
  _stopped(id);
  std::unique_lock lock(_framesMutex);
  const auto ended = _instances.at(id).ended;
  lock.unlock();
  if (failure)
    ended.setError(*failure);
  else
    ended.setValue();
}

} // namespace ZB::BehaviorManager
