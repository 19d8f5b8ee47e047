#include <behaviormanager/behaviorinfo.hpp>

#include <boost/thread/lock_guard.hpp>

namespace ZB::BehaviorManager
{

namespace
{
using Lock = boost::lock_guard<boost::mutex>;
}

BehaviorInfo::BehaviorInfo(std::string path)
    : _loadingMutex(std::make_shared<boost::mutex>()), _runningMutex(std::make_shared<boost::mutex>()),
      _play(std::make_shared<BehaviorPlay>(std::move(path), std::string(), Catalogue::noInstallation))
{
}

BehaviorState BehaviorInfo::state() const
{
  const Lock lock(_mutex);
  return _state;
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

void BehaviorInfo::setFmId(const std::string& fmId, Catalogue::Installation installation)
{
  const Lock lock(_mutex);
  _play = std::make_shared<BehaviorPlay>(_play->path, fmId, installation);
}

} // namespace ZB::BehaviorManager
