#include <behaviorinstance.hpp>

#include <utility>

#include <boost/asio/post.hpp>

#include <vu/caller.hpp>

namespace ZB::FrameManager
{

BehaviorInstance::BehaviorInstance(std::shared_ptr<const PlaySettings> settings, std::shared_ptr<const Project> project, std::string name,
                                   Strand strand, std::shared_ptr<vu::ThreadPool> continuations)
    : _settings(std::move(settings)), _project(std::move(project)), _name(std::move(name)), _strand(std::move(strand)),
      _ended(std::move(continuations))
{
}

bool BehaviorInstance::play()
{
  if (_played.exchange(true))
    return false;
  boost::asio::post(_strand, [self = shared_from_this(), caller = vu::currentCaller()] { self->begin(caller); });
  return true;
}

void BehaviorInstance::stop()
{
  boost::asio::post(_strand, [self = shared_from_this()] { self->xStop(); });
}

void BehaviorInstance::begin(const std::string& caller)
{
  if (_stopping)
    return;
  const auto play = std::make_shared<const Play>(Play{_settings, _project, _name, caller, _strand});
  _root = makeRunningStep(_project->root, play);
  // The root holds this instance, and this instance the root, until it ends.
  _root->start(
      [self = shared_from_this()](const Outcome& outcome)
      {
        self->_root.reset();
        self->_ended.setValue(self->_stopping ? Outcome() : outcome);
      });
}

void BehaviorInstance::xStop()
{
  _stopping = true;
  if (_root)
    _root->stop();
  else
    _ended.setValue(Outcome());
}

} // namespace ZB::FrameManager
