#include <behaviormanager/behaviormanager.hpp>

#include <vu/log.hpp>

#include "internal.hpp"

/// What the frame manager's reports bring about. They come in one line, on
/// threads of the pool.
namespace ZB::BehaviorManager
{

void ZBBehaviorManager::onBehaviorStopped(const std::shared_ptr<BehaviorPlay>& play, const std::string& stoppedId)
{
  if (stoppedId == play->fmId && _registry.reportStop(play))
    xFinishPlay(play);
}

/// What the end of an instance brings: its connections go, and its record goes
/// back to Stopped, unless it has gone on to another instance.
void ZBBehaviorManager::xFinishPlay(const std::shared_ptr<BehaviorPlay>& play)
{
  xDisconnect(_registry.close(play));
  if (isBehaviorInstalled(play->path))
    xEndInstance(play->path, play->fmId);
}

void ZBBehaviorManager::xDisconnect(const Registry::Links& links) const
{
  for (const auto link : links)
    if (link != vu::SignalBase::invalidSignalLink)
      _frameManagerObject.disconnect(link);
}

void ZBBehaviorManager::onBehaviorFailed(const std::shared_ptr<BehaviorPlay>& play, const std::string& failedId, const std::string& second,
                                         const std::string& third)
{
  if (failedId == play->fmId && _registry.reportFailure(play, second, third))
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
