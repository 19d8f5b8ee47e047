#include <behaviormanager/behaviormanager.hpp>

#include <set>

#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

void ZBBehaviorManager::stopBehavior(const std::string& behavior) { xStopBehavior(behavior, true); }

void ZBBehaviorManager::stopAllBehaviors()
{
  for (const auto& path : getRunningBehaviors())
    xStopBehavior(path, true);
}

bool ZBBehaviorManager::unloadBehavior(const std::string& behavior)
{
  if (_catalogue.xResolveBehaviorName(behavior).empty())
    throw makeError("unloadBehavior", "behavior " + behavior + " is not installed.");
  try
  {
    xStopBehavior(behavior, true);
    return true;
  }
  catch (const ZBError& error)
  {
    vu::log::verbose(logCategory, "unloadBehavior", std::string("Could not stop behavior: ") + error.what());
    return false;
  }
}

void ZBBehaviorManager::xStopBehavior(const std::string& behavior, bool waitForRun)
{
  const auto path = _catalogue.xResolveBehaviorName(behavior);
  if (path.empty())
    throw makeError("stopBehavior", "behavior " + behavior + " is not installed.");
  {
    // A package removed since the name was resolved has taken the behavior
    // along, or will when it gets the lock; its record stays Unknown.
    const auto loading = _registry.xBehaviorLoadingLock(path);
    if (!_catalogue.xFindBehavior(path).empty())
      xUnloadLocked(path);
  }
  if (waitForRun)
    _registry.xBehaviorRunningLock(path);
}

void ZBBehaviorManager::xUnloadBehavior(const std::string& path)
{
  const auto loading = _registry.xBehaviorLoadingLock(path);
  xUnloadLocked(path);
}

/// Leaves a newer instance alone.
void ZBBehaviorManager::xUnloadInstance(const std::string& path, const std::string& fmId)
{
  const auto loading = _registry.xBehaviorLoadingLock(path);
  if (!fmId.empty() && _registry.xFrameManagerId(path) == fmId)
    xUnloadLocked(path);
}

/// Called with the loading lock held.
void ZBBehaviorManager::xUnloadLocked(const std::string& path)
{
  const auto play = _registry.xBehaviorInfo(path)->play();
  if (!play->fmId.empty())
  {
    xDeleteInstance(play);
    xEndInstance(path, play->fmId); // or the stop report has done it
  }
  xSetBehaviorState(path, BehaviorState::Stopped);
}

/// Deletes the instance if the frame manager still holds it; refusals are only logged.
void ZBBehaviorManager::xDeleteInstance(const std::shared_ptr<BehaviorPlay>& play)
{
  std::set<std::string> held;
  try
  {
    held = _frameManager->getGenericProxy()->call<std::set<std::string>>("behaviors");
  }
  catch (const ZBError& error)
  {
    vu::log::warning(logCategory, "xUnloadBehavior", std::string("frame manager failed to list behaviors it handles: ") + error.what());
    return;
  }
  if (held.count(play->fmId) == 0) // it has ended by itself
  {
    // Perhaps before it was connected, and nothing more will be reported.
    if (_registry.isOpen(play))
      xWhenReported(_frameManagerObject.callValues("_waitForStopped", vu::Value::array({play->fmId})),
                    [this, play](const vu::Future<vu::Value>&, const vu::Gate::Pass& pass)
                    {
                      if (pass)
                        xFinishPlay(play);
                    });
    return;
  }
  try
  {
    _frameManager->deleteBehavior(play->fmId);
  }
  catch (const ZBError& error)
  {
    vu::log::warning(logCategory, "xUnloadBehavior",
                     "error calling deleteBehavior, behavior " + play->path + " may have already been unloaded:" + error.what());
  }
}

} // namespace ZB::BehaviorManager
