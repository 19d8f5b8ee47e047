#include <behaviormanager/registry.hpp>

#include <boost/thread/lock_guard.hpp>

namespace ZB::BehaviorManager
{

namespace
{
using Lock = boost::lock_guard<boost::mutex>;
}

BehaviorInfo* Registry::xBehaviorInfo(const std::string& path)
{
  const Lock lock(_mutex);
  auto found = _behaviors.find(path);
  if (found == _behaviors.end())
    found = _behaviors.emplace(path, std::make_unique<BehaviorInfo>(path)).first;
  return found->second.get();
}

std::optional<BehaviorState> Registry::exchangeState(const std::string& path, BehaviorState newState)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_mutex);
  const auto oldState = info->state();
  return info->setState(newState) ? std::optional(oldState) : std::nullopt;
}

void Registry::xSetFrameManagerId(const std::string& path, const std::string& fmId, Catalogue::Installation installation)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_mutex);
  eraseId(info->fmId());
  info->setFmId(fmId, installation);
  if (fmId.empty())
    return;
  const Lock indexLock(_fmIdsMutex);
  _fmIds[fmId] = path;
}

void Registry::eraseId(const std::string& fmId)
{
  const Lock lock(_fmIdsMutex);
  _fmIds.erase(fmId);
}

std::optional<BehaviorState> Registry::endInstance(const std::string& path, const std::string& fmId)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_mutex);
  if (info->fmId() != fmId)
    return std::nullopt;
  eraseId(fmId);
  info->setFmId({});
  const auto oldState = info->state();
  return info->setState(BehaviorState::Stopped) ? std::optional(oldState) : std::nullopt;
}

std::vector<std::string> Registry::behaviorsWhere(bool (*matches)(BehaviorState))
{
  std::vector<std::string> paths;
  {
    const Lock lock(_mutex);
    paths.reserve(_behaviors.size());
    for (const auto& [path, info] : _behaviors)
      paths.push_back(path);
  }
  std::erase_if(paths, [this, matches](const std::string& path) { return !matches(xBehaviorState(path)); });
  return paths;
}

std::optional<std::string> Registry::behaviorOf(const std::string& fmId) const
{
  const Lock lock(_fmIdsMutex);
  const auto found = _fmIds.find(fmId);
  return found == _fmIds.end() ? std::nullopt : std::optional(found->second);
}

std::shared_ptr<BehaviorPlay> Registry::beginStart(const std::string& path)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_mutex);
  auto play = info->play();
  ++play->starting;
  _openPlays.insert(play);
  return play;
}

void Registry::xSetBehaviorLinks(const std::string& path, const vu::SignalLink& stoppedLink, const vu::SignalLink& failedLink)
{
  BehaviorInfo* const info = xBehaviorInfo(path);
  const Lock lock(_mutex);
  info->setBehaviorStoppedLink(stoppedLink);
  info->setBehaviorFailedLink(failedLink);
}

Registry::Reports Registry::endStart(const std::shared_ptr<BehaviorPlay>& play)
{
  const Lock lock(_mutex);
  Reports reports;
  if (play->starting > 1)
  {
    --play->starting;
    return reports;
  }
  reports.failure.swap(play->failure);
  if (!reports.failure)
  {
    play->starting = 0;
    reports.stopped = play->stopReported;
  }
  return reports;
}

bool Registry::reportStop(const std::shared_ptr<BehaviorPlay>& play)
{
  const Lock lock(_mutex);
  play->stopReported = true;
  return play->starting == 0;
}

bool Registry::reportFailure(const std::shared_ptr<BehaviorPlay>& play, const std::string& second, const std::string& third)
{
  const Lock lock(_mutex);
  if (play->starting == 0)
    return true;
  play->failure = BehaviorPlay::Failure{second, third};
  return false;
}

bool Registry::isOpen(const std::shared_ptr<BehaviorPlay>& play) const
{
  const Lock lock(_mutex);
  return _openPlays.count(play) != 0;
}

Registry::Links Registry::takeLinks(BehaviorPlay& play)
{
  return {play.stoppedLink.exchange(vu::SignalBase::invalidSignalLink), play.failedLink.exchange(vu::SignalBase::invalidSignalLink)};
}

Registry::Links Registry::close(const std::shared_ptr<BehaviorPlay>& play)
{
  const Lock lock(_mutex);
  _openPlays.erase(play);
  return takeLinks(*play);
}

std::vector<Registry::Links> Registry::clear()
{
  std::vector<Links> links;
  const Lock lock(_mutex);
  for (const auto& play : _openPlays)
    links.push_back(takeLinks(*play));
  _openPlays.clear();
  _behaviors.clear();
  return links;
}

} // namespace ZB::BehaviorManager
