#include <behaviormanager/behaviormanager.hpp>

#include <exception>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/thread/lock_guard.hpp>

#include <zb/zbproxy.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

bool ZBBehaviorManager::loadBehavior(const std::string& behavior)
{
  std::string package;
  std::string relative;
  const auto path = xResolveBehaviorName(behavior, &package, &relative);
  if (path.empty())
    throw makeError("preloadBehavior", "behavior " + behavior + " is not installed.");

  std::string behaviorFile;
  if (relative.empty() || relative == ".")
    behaviorFile = fxarFileName;
  else if (boost::algorithm::contains(relative, fxarFileName))
    behaviorFile = relative;
  else
    behaviorFile = relative + "/" + fxarFileName;

  const auto loading = xBehaviorLoadingLock(path);
  const auto state = xBehaviorState(path);
  if (isLoaded(state))
    return true;
  if (state > BehaviorState::Running)
    throw makeError("preloadBehavior", "Could not load behavior, " + path + " was in an consistent state.");

  // A package removed since the name was resolved has no directory, which the
  // frame manager refuses.
  const auto id = _frameManager->createBehavior(getPackageDir(package), behaviorFile, path);
  xSetFrameManagerId(path, id);
  xSetBehaviorState(path, BehaviorState::Loaded);
  return true;
}

void ZBBehaviorManager::startBehavior(const std::string& behavior) { xStartBehavior(behavior); }

/// Gives the id of the instance that it played, or nothing where somebody else
/// started, stopped or unloaded the behavior in between.
std::string ZBBehaviorManager::xStartBehavior(const std::string& behavior)
{
  const auto path = xResolveBehaviorName(behavior, nullptr, nullptr);
  if (path.empty())
    throw makeError("startBehavior", "behavior " + behavior + " is not installed");
  BehaviorInfo* const info = xBehaviorInfo(path);
  if (info->state() == BehaviorState::Running)
    throw makeError("startBehavior", "behavior " + path + " is already running.");
  try
  {
    loadBehavior(path);
  }
  catch (const ZBError& error)
  {
    throw makeError("startBehavior", "behavior " + path + " failed to load: " + error.what());
  }

  std::shared_ptr<BehaviorPlay> play;
  std::exception_ptr failure;
  {
    const BehaviorLoadingLocker loading(info);
    if (info->state() != BehaviorState::Loaded)
      return {};
    play = xBeginPlay(path, *info);
    try
    {
      xConnectPlay(play);
      _frameManagerObject.call<void>("playBehavior", play->fmId);
      xSetBehaviorState(path, BehaviorState::Running);
    }
    catch (...)
    {
      failure = std::current_exception();
    }
  }
  xEndStarting(play);
  try
  {
    if (failure)
      std::rethrow_exception(failure);
  }
  catch (const std::exception&)
  {
    throw makeError("startBehavior", "behavior " + path + " has been unexpectedly deleted");
  }
  return play->fmId;
}

/// The play of the loaded instance. One whose last play failed still has its
/// connections, and a new start takes them over: dropping them would drop
/// reports that are on their way. Called with the loading lock held.
std::shared_ptr<BehaviorPlay> ZBBehaviorManager::xBeginPlay(const std::string& path, BehaviorInfo& info)
{
  const auto id = info.fmId();
  const boost::lock_guard<boost::mutex> lock(_registryMutex);
  auto play = info.play();
  if (!play || play->fmId != id)
  {
    play = std::make_shared<BehaviorPlay>(path, id);
    info.setPlay(play);
  }
  play->starting = true;
  return play;
}

/// Connects whichever of the two is not connected, and stores both links in the record.
void ZBBehaviorManager::xConnectPlay(const std::shared_ptr<BehaviorPlay>& play)
{
  {
    const boost::lock_guard<boost::mutex> lock(_registryMutex);
    _openPlays.insert(play);
  }
  if (play->stoppedLink == vu::SignalBase::invalidSignalLink)
    play->stoppedLink = _frameManagerObject
                            .connect<std::string>("behaviorStopped",
                                                  [this, gate = _gate, play](const std::string& id)
                                                  {
                                                    if (const auto pass = gate->enter())
                                                      onBehaviorStopped(play, id);
                                                  })
                            .value();
  if (play->failedLink == vu::SignalBase::invalidSignalLink)
    play->failedLink = _frameManagerObject
                           .connect<std::string, std::string, std::string>(
                               "behaviorFailed",
                               [this, gate = _gate, play](const std::string& id, const std::string& second, const std::string& third)
                               {
                                 if (const auto pass = gate->enter())
                                   onBehaviorFailed(play, id, second, third);
                               })
                           .value();
  xSetBehaviorLinks(play->path, play->stoppedLink, play->failedLink);
}

/// Carries out what was reported since xBeginPlay(); later reports act
/// themselves. Until the failure has been announced a stop is only marked, or
/// it would overtake it. Called without the loading lock, since it may disconnect.
void ZBBehaviorManager::xEndStarting(const std::shared_ptr<BehaviorPlay>& play)
{
  for (;;)
  {
    std::optional<std::pair<std::string, std::string>> failure;
    bool ended = false;
    {
      const boost::lock_guard<boost::mutex> lock(_registryMutex);
      failure.swap(play->failure);
      play->starting = failure.has_value();
      ended = play->stopReported;
    }
    if (failure)
      xAnnounceFailure(*play, failure->first, failure->second);
    else
      return ended ? xFinishPlay(play) : void();
  }
}

vu::Future<void> ZBBehaviorManager::runBehavior(const std::string& behavior)
{
  const auto path = xResolveBehaviorName(behavior, nullptr, nullptr);
  if (path.empty())
    throw makeError("runBehavior", "behavior " + behavior + " is not installed");
  const auto running = xBehaviorRunningLock(path);
  auto id = xStartBehavior(path);
  if (id.empty())
    id = xFrameManagerId(path);

  const auto proxy = getParentBroker()->getProxy("ZBFrameManager");
  const vu::Object frameManager = proxy ? vu::Object(*proxy) : vu::Object();
  const auto waited = frameManager.async<void>("_waitForStopped", id);

  const vu::Promise<void> promise(getParentBroker()->pool());
  // The reports of the instance stand in the line when the wait ends. They go
  // first, so that a failure is announced before its stop.
  waited.then(
      [this, gate = _gate, line = _frameManagerObject, name = behavior, path, id, promise](const vu::Future<void>& ended)
      {
        line.delivered().then(
            [this, gate, name, path, id, promise, ended](const vu::Future<void>&)
            {
              if (const auto pass = gate->enter())
                _runBehaviorCont(ended, name, path, id, promise);
              else if (ended.hasError()) // the module has gone and taken the behavior along
                promise.setError(ended.error());
              else
                promise.setValue();
            });
      });
  return promise.future();
}

void ZBBehaviorManager::_runBehaviorCont(const vu::Future<void>& waited, const std::string& name, const std::string& path,
                                         const std::string& fmId, const vu::Promise<void>& promise)
{
  try
  {
    std::string errors = waited.error();
    {
      // By now the record may hold a newer instance, or none, of a package
      // that has been removed; those are not this run's to unload.
      const auto loading = xBehaviorLoadingLock(path);
      if (!fmId.empty() && xFrameManagerId(path) == fmId)
        xUnloadLocked(path);
    }
    // Behind a runBehavior() of the same behavior that has not returned yet.
    xBehaviorRunningLock(path);
    if (boost::algorithm::starts_with(name, systemBehaviorPrefix))
    {
      try
      {
        if (const auto self = getParentBroker()->getProxy(getName()))
          self->pCall("preloadBehavior", path);
      }
      catch (const ZBError& error)
      {
        errors += "Error caught reloading the behavior " + name + ": " + error.what() + "\n";
      }
    }
    if (errors.empty())
      promise.setValue();
    else
      promise.setError(errors);
  }
  catch (...)
  {
    promise.setException(std::current_exception());
  }
}

} // namespace ZB::BehaviorManager
