#include <behaviormanager/behaviormanager.hpp>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/lock_types.hpp>

#include <vu/log.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

namespace
{
using Lock = boost::lock_guard<boost::mutex>;
}

BehaviorInfo* ZBBehaviorManager::xBehaviorInfo(const std::string& path)
{
  const Lock lock(_registryMutex);
  auto found = _behaviors.find(path);
  if (found == _behaviors.end())
    found = _behaviors.emplace(path, std::make_unique<BehaviorInfo>()).first;
  return found->second.get();
}

BehaviorLoadingLocker ZBBehaviorManager::xBehaviorLoadingLock(const std::string& path)
{
  return BehaviorLoadingLocker(xBehaviorInfo(path));
}

BehaviorRunningLocker ZBBehaviorManager::xBehaviorRunningLock(const std::string& path)
{
  return BehaviorRunningLocker(xBehaviorInfo(path));
}

BehaviorState ZBBehaviorManager::xBehaviorState(const std::string& path) { return xBehaviorInfo(path)->state(); }

std::string ZBBehaviorManager::xFrameManagerId(const std::string& path) { return xBehaviorInfo(path)->fmId(); }

vu::SignalLink ZBBehaviorManager::xBehaviorStoppedLink(const std::string& path) { return xBehaviorInfo(path)->behaviorStoppedLink(); }

vu::SignalLink ZBBehaviorManager::xBehaviorFailedLink(const std::string& path) { return xBehaviorInfo(path)->behaviorFailedLink(); }

void ZBBehaviorManager::xSetBehaviorLinks(const std::string& path, const vu::SignalLink& stoppedLink, const vu::SignalLink& failedLink)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_registryMutex);
  info->setBehaviorStoppedLink(stoppedLink);
  info->setBehaviorFailedLink(failedLink);
}

void ZBBehaviorManager::xSetBehaviorState(const std::string& path, BehaviorState newState)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  boost::unique_lock<boost::mutex> lock(_registryMutex);
  const auto oldState = info->state();
  const bool changed = info->setState(newState);
  lock.unlock();
  if (changed)
    xAnnounceState(path, oldState, newState);
}

void ZBBehaviorManager::xSetFrameManagerId(const std::string& path, const std::string& fmId)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_registryMutex);
  xEraseFrameManagerId(info->fmId());
  info->setFmId(fmId);
  if (fmId.empty())
    return;
  const Lock indexLock(_fmIdsMutex);
  _fmIds[fmId] = path;
}

void ZBBehaviorManager::xEraseFrameManagerId(const std::string& fmId)
{
  const Lock lock(_fmIdsMutex);
  _fmIds.erase(fmId);
}

/// Takes the record from its instance to Stopped, if `fmId` still is that
/// instance. Test and change are one step, so that a report that comes late
/// cannot touch the next instance.
bool ZBBehaviorManager::xEndInstance(const std::string& path, const std::string& fmId)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  boost::unique_lock<boost::mutex> lock(_registryMutex);
  if (info->fmId() != fmId)
    return false;
  xEraseFrameManagerId(fmId);
  info->setFmId({});
  const auto oldState = info->state();
  const bool changed = info->setState(BehaviorState::Stopped);
  lock.unlock();
  if (changed)
    xAnnounceState(path, oldState, BehaviorState::Stopped);
  return true;
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
    if (oldState == BehaviorState::Running)
    {
      raiseLoaded();
      raiseRunning();
    }
    else if (oldState == BehaviorState::Loaded)
      raiseLoaded();
  }
  catch (const ZBError& error)
  {
    vu::log::warning(logCategory, "xSetBehaviorState", error.what());
  }
}

void ZBBehaviorManager::xRaise(const char* key, const ZBValue& value) { _memory->raiseMicroEvent(key, value); }

std::vector<std::string> ZBBehaviorManager::xBehaviorsWhere(bool (*matches)(BehaviorState))
{
  std::vector<std::string> paths;
  {
    const Lock lock(_registryMutex);
    paths.reserve(_behaviors.size());
    for (const auto& [path, info] : _behaviors)
      paths.push_back(path);
  }
  std::erase_if(paths, [this, matches](const std::string& path) { return !matches(xBehaviorInfo(path)->state()); });
  return paths;
}

bool ZBBehaviorManager::isBehaviorRunning(const std::string& behavior)
{
  return xBehaviorState(xResolveBehaviorName(behavior, nullptr, nullptr)) == BehaviorState::Running;
}

bool ZBBehaviorManager::isBehaviorLoaded(const std::string& behavior)
{
  return isLoaded(xBehaviorState(xResolveBehaviorName(behavior, nullptr, nullptr)));
}

std::vector<std::string> ZBBehaviorManager::getRunningBehaviors()
{
  return xBehaviorsWhere([](BehaviorState state) { return state == BehaviorState::Running; });
}

std::vector<std::string> ZBBehaviorManager::getLoadedBehaviors() { return xBehaviorsWhere(isLoaded); }

std::string ZBBehaviorManager::getBehaviorFrameManagerId(const std::string& behavior)
{
  const auto path = xResolveBehaviorName(behavior, nullptr, nullptr);
  if (path.empty())
    throw makeError("getBehaviorFrameManagerId", "behavior " + behavior + " is not installed.");
  return xFrameManagerId(path);
}

} // namespace ZB::BehaviorManager
