#include <behaviormanager/behaviormanager.hpp>

#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

void ZBBehaviorManager::xSetBehaviorState(const std::string& path, BehaviorState newState)
{
  if (const auto oldState = _registry.exchangeState(path, newState))
    xAnnounceState(path, *oldState, newState);
}

void ZBBehaviorManager::xEndInstance(const std::string& path, const std::string& fmId)
{
  if (const auto oldState = _registry.endInstance(path, fmId))
    xAnnounceState(path, *oldState, BehaviorState::Stopped);
}

void ZBBehaviorManager::xAnnounceState(const std::string& path, BehaviorState oldState, BehaviorState newState)
{
  const auto raiseLoaded = [this] { xRaise(behaviorsLoadedKey, getLoadedBehaviors()); };
  const auto raiseRunning = [this] { xRaise(behaviorsRunKey, getRunningBehaviors()); };
  try
  {
    switch (newState)
    {
    case BehaviorState::Loaded:
      behaviorLoaded(path);
      raiseLoaded();
      return;
    case BehaviorState::Running:
      behaviorStarted(path);
      raiseRunning();
      return;
    case BehaviorState::Stopped:
      behaviorStopped(path);
      break;
    case BehaviorState::Unknown:
      break;
    }
    if (isLoaded(oldState))
      raiseLoaded();
    if (oldState == BehaviorState::Running)
      raiseRunning();
  }
  catch (const ZBError& error)
  {
    vu::log::warning(logCategory, "xSetBehaviorState", error.what());
  }
}

void ZBBehaviorManager::xRaise(const char* key, const ZBValue& value) { _memory->raiseMicroEvent(key, value); }

void ZBBehaviorManager::xPackageAdded(const vu::PackageInfo& package)
{
  const auto installation = _catalogue.add(package);
  if (installation == Catalogue::noInstallation)
    return;
  std::vector<std::string> names;
  for (const auto& behavior : package.behaviors())
  {
    names.push_back(package.uuid() + "/" + behavior.path());
    onBehaviorAdded(names.back(), installation);
  }
  behaviorsAdded(names);
  xRaise(behaviorsAddedKey, names);
}

void ZBBehaviorManager::xPackageRemoved(const vu::PackageInfo& package)
{
  if (!_catalogue.remove(package.uuid()))
    return;
  std::vector<std::string> names;
  for (const auto& behavior : package.behaviors())
  {
    names.push_back(package.uuid() + "/" + behavior.path());
    onBehaviorRemoved(names.back());
  }
  behaviorsRemoved(names);
  xRaise(behaviorsRemovedKey, names);
}

void ZBBehaviorManager::onBehaviorAdded(const std::string& name, Catalogue::Installation installation)
{
  {
    // The package is in the catalogue already, and a client may have been
    // quicker: its instance stays. One of an earlier installation, whose
    // removal did not take it along, would be nobody's.
    const auto loading = _registry.xBehaviorLoadingLock(name);
    if (_registry.xBehaviorInfo(name)->play()->installation != installation)
      xUnloadLocked(name);
  }
  xRaise(behaviorAddedKey, name);
}

void ZBBehaviorManager::onBehaviorUpdated(const std::string& name) { xRaise(behaviorUpdatedKey, name); }

void ZBBehaviorManager::onBehaviorRemoved(const std::string& name)
{
  xUnloadBehavior(name);
  xSetBehaviorState(name, BehaviorState::Unknown);
  xRaise(behaviorRemovedKey, name);
}

} // namespace ZB::BehaviorManager
