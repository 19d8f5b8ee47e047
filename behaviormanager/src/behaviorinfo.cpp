#include <behaviormanager/behaviorinfo.hpp>

#include <boost/thread/lock_guard.hpp>

namespace ZB::BehaviorManager
{

namespace
{
using Lock = boost::lock_guard<boost::mutex>;
}

BehaviorInfo::BehaviorInfo() : _loadingMutex(std::make_shared<boost::mutex>()), _runningMutex(std::make_shared<boost::mutex>()) {}

BehaviorState BehaviorInfo::state() const
{
  const Lock lock(_mutex);
  return _state;
}

std::string BehaviorInfo::fmId() const
{
  const Lock lock(_mutex);
  return _fmId;
}

vu::SignalLink BehaviorInfo::behaviorStoppedLink() const
{
  const Lock lock(_mutex);
  return _behaviorStoppedLink;
}

vu::SignalLink BehaviorInfo::behaviorFailedLink() const
{
  const Lock lock(_mutex);
  return _behaviorFailedLink;
}

std::shared_ptr<BehaviorPlay> BehaviorInfo::play() const
{
  const Lock lock(_mutex);
  return _play;
}

bool BehaviorInfo::setState(BehaviorState state)
{
  const Lock lock(_mutex);
  if (_state == state)
    return false;
  _state = state;
  return true;
}

void BehaviorInfo::setFmId(const std::string& fmId)
{
  const Lock lock(_mutex);
  _fmId = fmId;
}

void BehaviorInfo::setBehaviorStoppedLink(const vu::SignalLink& link)
{
  const Lock lock(_mutex);
  _behaviorStoppedLink = link;
}

void BehaviorInfo::setBehaviorFailedLink(const vu::SignalLink& link)
{
  const Lock lock(_mutex);
  _behaviorFailedLink = link;
}

void BehaviorInfo::setPlay(std::shared_ptr<BehaviorPlay> play)
{
  const Lock lock(_mutex);
  _play = std::move(play);
}

} // namespace ZB::BehaviorManager
