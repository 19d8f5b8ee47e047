#include <behaviormanager/behaviormanager.hpp>

#include <set>

#include <boost/thread/lock_guard.hpp>

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
  if (xResolveBehaviorName(behavior, nullptr, nullptr).empty())
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
  const auto path = xResolveBehaviorName(behavior, nullptr, nullptr);
  if (path.empty())
    throw makeError("stopBehavior", "behavior " + behavior + " is not installed.");
  {
    // A package removed since the name was resolved has taken the behavior
    // along, or will when it gets the lock; its record stays Unknown.
    const auto loading = xBehaviorLoadingLock(path);
    if (!xFindBehavior(path).empty())
      xUnloadLocked(path);
  }
  if (waitForRun)
    xBehaviorRunningLock(path);
}

void ZBBehaviorManager::xUnloadBehavior(const std::string& path)
{
  const auto loading = xBehaviorLoadingLock(path);
  xUnloadLocked(path);
}

/// Called with the loading lock held.
void ZBBehaviorManager::xUnloadLocked(const std::string& path)
{
  const auto id = xFrameManagerId(path);
  if (!id.empty())
  {
    xDeleteInstance(path, id);
    xEndInstance(path, id); // or the stop report has done it
  }
  xSetBehaviorState(path, BehaviorState::Stopped);
}

/// Deletes the instance if the frame manager still holds it; refusals are only logged.
void ZBBehaviorManager::xDeleteInstance(const std::string& path, const std::string& fmId)
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
  if (held.count(fmId) == 0)
    return; // it has ended by itself
  try
  {
    _frameManager->deleteBehavior(fmId);
  }
  catch (const ZBError& error)
  {
    vu::log::warning(logCategory, "xUnloadBehavior",
                     "error calling deleteBehavior, behavior " + path + " may have already been unloaded:" + error.what());
  }
}

void ZBBehaviorManager::onBehaviorStopped(const std::shared_ptr<BehaviorPlay>& play, const std::string& stoppedId)
{
  if (stoppedId != play->fmId)
    return;
  {
    const boost::lock_guard<boost::mutex> lock(_registryMutex);
    play->stopReported = true;
    if (play->starting)
      return; // startBehavior() sees to it once it has announced the start
  }
  xFinishPlay(play);
}

/// What the end of an instance brings: its connections go, and its record goes
/// back to Stopped, unless it has gone on to another instance.
void ZBBehaviorManager::xFinishPlay(const std::shared_ptr<BehaviorPlay>& play)
{
  {
    const boost::lock_guard<boost::mutex> lock(_registryMutex);
    _openPlays.erase(play);
  }
  const auto stoppedLink = play->stoppedLink.exchange(vu::SignalBase::invalidSignalLink);
  const auto failedLink = play->failedLink.exchange(vu::SignalBase::invalidSignalLink);
  for (const auto link : {stoppedLink, failedLink})
    if (link != vu::SignalBase::invalidSignalLink)
      _frameManagerObject.disconnect(link);
  if (!isBehaviorInstalled(play->path))
    return;
  xEndInstance(play->path, play->fmId);

  BehaviorInfo* const info = xBehaviorInfo(play->path);
  const boost::lock_guard<boost::mutex> lock(_registryMutex);
  if (info->behaviorStoppedLink() == stoppedLink)
    info->setBehaviorStoppedLink(vu::SignalBase::invalidSignalLink);
  if (info->behaviorFailedLink() == failedLink)
    info->setBehaviorFailedLink(vu::SignalBase::invalidSignalLink);
}

void ZBBehaviorManager::onBehaviorFailed(const std::shared_ptr<BehaviorPlay>& play, const std::string& failedId, const std::string& second,
                                         const std::string& third)
{
  if (failedId != play->fmId)
    return;
  {
    const boost::lock_guard<boost::mutex> lock(_registryMutex);
    if (play->starting)
    {
      play->failure.emplace(second, third); // announced behind the start
      return;
    }
  }
  xAnnounceFailure(*play, second, third);
}

void ZBBehaviorManager::xAnnounceFailure(const BehaviorPlay& play, const std::string& second, const std::string& third)
{
  try
  {
    behaviorFailed(play.path, play.fmId, third);
    ZBValue news;
    news.arrayPush(play.path);
    news.arrayPush(second);
    news.arrayPush(third);
    xRaise(behaviorFailedKey, news);
  }
  catch (const ZBError& error)
  {
    vu::log::warning("ZBBehaviorManager", "onBehaviorFailed", error.what());
  }
}

} // namespace ZB::BehaviorManager
