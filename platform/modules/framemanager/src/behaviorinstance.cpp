#include <behaviorinstance.hpp>

#include <string_view>
#include <utility>

#include <boost/asio/post.hpp>

#include <vu/caller.hpp>

namespace ZB::FrameManager
{

namespace
{

/// On whose behalf a behavior calls services: "BEHAVIOR for STARTER". A starter
/// that is a behavior itself stands for its own, so that behaviors that start
/// each other make no longer and longer names; the history tells each start.
std::string callerName(const std::string& behavior, const std::string& starter)
{
  constexpr std::string_view by = " for ";
  const auto last = starter.rfind(by);
  const auto whom = last == std::string::npos ? starter : starter.substr(last + by.size());
  return behavior + std::string(by) + (whom.empty() ? "host" : whom); // where nobody has asked, it is this process that has
}

} // namespace

BehaviorInstance::BehaviorInstance(std::shared_ptr<const PlaySettings> settings, std::shared_ptr<const LoadedBehavior> behavior,
                                   std::string name, Strand strand, std::shared_ptr<vu::ThreadPool> continuations)
    : _settings(std::move(settings)), _behavior(std::move(behavior)), _name(std::move(name)), _strand(std::move(strand)),
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
  Caller asking{callerName(_name, caller), [rights = _behavior->rights](const Call& call, vu::Role least)
                { return rights.refusal(call.service, call.method, least); }};
  _token = std::make_shared<RunToken>(_settings->session, asking.name, _behavior->rights.asked());
  const std::shared_ptr<const Project> project(_behavior, &_behavior->project);
  const auto output = std::make_shared<OutputBudget>(_strand, _name, _settings->linesLeftOut);
  const auto play = std::make_shared<const Play>(Play{_settings, project, _name, std::move(asking), _token, _strand, output});
  _root = makePlayedStep(project->root, play);
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

void BehaviorInstance::endToken() const
{
  if (_token)
    _token->end();
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
