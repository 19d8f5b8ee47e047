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

bool BehaviorInstance::play(std::chrono::milliseconds limit)
{
  const vu::Promise<void> begun;
  const auto decided = std::make_shared<std::atomic<bool>>(false); // by whoever comes first: the beginning or the time-out
  boost::asio::post(_strand,
                    [self = shared_from_this(), caller = vu::currentCaller(), begun, decided]
                    {
                      if (decided->exchange(true))
                        return;
                      begun.setValue();
                      self->begin(caller);
                    });
  return begun.future().wait(limit) || decided->exchange(true);
}

void BehaviorInstance::stop(Ending::Kind kind, const std::string& by)
{
  boost::asio::post(_strand, [self = shared_from_this(), ending = Ending{kind, {}, by, {}}] { self->xStop(ending); });
}

void BehaviorInstance::begin(const std::string& caller)
{
  if (_stop)
    return;
  const auto output = std::make_shared<OutputBudget>(_strand, _name, _settings->linesLeftOut);
  const auto play = std::make_shared<const Play>(Play{_settings, _project, _name, caller, _strand, output});
  _root = makePlayedStep(_project->root, play);
  // The root holds this instance, and this instance the root, until it ends.
  _root->start(
      [self = shared_from_this(), leftAlone = play->leftAlone](const Outcome& outcome)
      {
        self->_root.reset();
        auto ending = self->_stop.value_or(outcome ? Ending{Ending::Kind::Failed, *outcome, {}, {}} : Ending());
        ending.leftAlone = *leftAlone;
        self->_ended.setValue(ending);
      });
}

void BehaviorInstance::xStop(Ending ending)
{
  if (!_stop)
    _stop = std::move(ending);
  if (_root)
    _root->stop();
  else
    _ended.setValue(*_stop);
}

} // namespace ZB::FrameManager
