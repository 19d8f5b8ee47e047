#include <behaviormanager/behaviormanager.hpp>

#include <exception>

#include <boost/algorithm/string/predicate.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

ZBBehaviorManager::Resolved ZBBehaviorManager::xResolve(const std::string& name) const
{
  Resolved resolved;
  resolved.path = _catalogue.xResolveBehaviorName(name, &resolved.package, &resolved.relative);
  return resolved;
}

bool ZBBehaviorManager::loadBehavior(const std::string& behavior)
{
  xLoadBehavior(behavior, xResolve(behavior));
  return true;
}

/// `name` is what the caller called it.
void ZBBehaviorManager::xLoadBehavior(const std::string& name, const Resolved& behavior)
{
  const auto& [path, package, relative] = behavior;
  const auto notInstalled = [&name] { return makeError("preloadBehavior", "behavior " + name + " is not installed."); };
  if (path.empty())
    throw notInstalled();

  std::string behaviorFile;
  if (relative.empty() || relative == ".")
    behaviorFile = fxarFileName;
  else if (boost::algorithm::contains(relative, fxarFileName))
    behaviorFile = relative;
  else
    behaviorFile = relative + "/" + fxarFileName;

  const auto loading = _registry.xBehaviorLoadingLock(path);
  const auto state = _registry.xBehaviorState(path);
  if (isLoaded(state))
    return;
  if (state > BehaviorState::Running)
    throw makeError("preloadBehavior", "Could not load behavior, " + path + " was in an consistent state.");

  auto installation = Catalogue::noInstallation;
  const auto directory = _catalogue.getPackageDir(package, &installation);
  if (installation == Catalogue::noInstallation) // removed since the name was resolved
    throw notInstalled();
  const auto id = _frameManager->createBehavior(directory, behaviorFile, path);
  _registry.xSetFrameManagerId(path, id, installation);
  xSetBehaviorState(path, BehaviorState::Loaded);
}

void ZBBehaviorManager::startBehavior(const std::string& behavior)
{
  const auto resolved = xResolve(behavior);
  if (resolved.path.empty())
    throw makeError("startBehavior", "behavior " + behavior + " is not installed");
  xStartBehavior(resolved);
}

/// Gives the id of the instance that it played, or nothing where somebody else
/// started, stopped or unloaded the behavior in between.
std::string ZBBehaviorManager::xStartBehavior(const Resolved& behavior)
{
  const auto& path = behavior.path;
  BehaviorInfo* const info = _registry.xBehaviorInfo(path);
  if (info->state() == BehaviorState::Running)
    throw makeError("startBehavior", "behavior " + path + " is already running.");
  try
  {
    xLoadBehavior(path, behavior);
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
    play = _registry.beginStart(path);
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

/// Connects whichever of the two is not connected. Called with the loading lock held.
void ZBBehaviorManager::xConnectPlay(const std::shared_ptr<BehaviorPlay>& play)
{
  if (play->stoppedLink == vu::SignalBase::invalidSignalLink)
  {
    const auto link = _frameManagerObject
                          .connect<std::string>("behaviorStopped",
                                                [this, gate = _gate, play](const std::string& id)
                                                {
                                                  if (const auto pass = gate->enter())
                                                    onBehaviorStopped(play, id);
                                                })
                          .value();
    _registry.xSetBehaviorLinks(play->path, link, play->failedLink);
  }
  if (play->failedLink == vu::SignalBase::invalidSignalLink)
  {
    const auto link = _frameManagerObject
                          .connect<std::string, std::string, std::string>(
                              "behaviorFailed",
                              [this, gate = _gate, play](const std::string& id, const std::string& second, const std::string& third)
                              {
                                if (const auto pass = gate->enter())
                                  onBehaviorFailed(play, id, second, third);
                              })
                          .value();
    _registry.xSetBehaviorLinks(play->path, play->stoppedLink, link);
  }
}

/// Acts on what was reported since the start began; later reports act
/// themselves. Called without the loading lock, since it may disconnect.
void ZBBehaviorManager::xEndStarting(const std::shared_ptr<BehaviorPlay>& play)
{
  auto reports = _registry.endStart(play);
  for (; reports.failure; reports = _registry.endStart(play))
    xAnnounceFailure(*play, reports.failure->second, reports.failure->third);
  if (reports.stopped)
    xFinishPlay(play);
}

} // namespace ZB::BehaviorManager
