#include <compositesteps.hpp>

#include <callstep.hpp>
#include <runstep.hpp>
#include <simplesteps.hpp>

namespace ZB::FrameManager
{

namespace
{

class MakeRunning
{
public:
  MakeRunning(const std::shared_ptr<const Play>& play, const std::string& title) : _play(play), _title(title) {}

  std::shared_ptr<RunningStep> operator()(const EventStep& action) const { return make<RunningCalls>(RunningCalls::ofEvent(action)); }
  std::shared_ptr<RunningStep> operator()(const CallStep& action) const { return make<RunningCalls>(std::vector{action}); }
  std::shared_ptr<RunningStep> operator()(const WaitStep& action) const { return make<RunningWait>(action); }
  std::shared_ptr<RunningStep> operator()(const RunStep& action) const { return make<RunningProcess>(action); }
  std::shared_ptr<RunningStep> operator()(const SequenceStep& action) const { return make<RunningSequence>(action); }
  std::shared_ptr<RunningStep> operator()(const ParallelStep& action) const { return make<RunningParallel>(action); }
  std::shared_ptr<RunningStep> operator()(const LogStep& action) const { return make<RunningLog>(action); }
  std::shared_ptr<RunningStep> operator()(const FailStep& action) const { return make<RunningFail>(action); }

private:
  template <typename Running, typename Action> std::shared_ptr<RunningStep> make(const Action& action) const
  {
    return std::make_shared<Running>(_play, _title, action);
  }

  const std::shared_ptr<const Play>& _play;
  const std::string& _title;
};

} // namespace

RunningSequence::RunningSequence(std::shared_ptr<const Play> play, const std::string& title, const SequenceStep& sequence)
    : RunningStep(std::move(play), title), _sequence(sequence)
{
}

void RunningSequence::next()
{
  if (_position == _sequence.steps.size())
  {
    _position = 0;
    ++_round;
  }
  if (_sequence.steps.empty() || (_sequence.count && _round >= *_sequence.count))
    return end();
  _current = makeRunningStep(_sequence.steps[_position++], sharedPlay());
  _current->start([this](const Outcome& outcome) { currentEnded(outcome); });
}

void RunningSequence::currentEnded(const Outcome& outcome)
{
  if (outcome || isStopping())
    return end(outcome);
  next();
}

RunningParallel::RunningParallel(std::shared_ptr<const Play> play, const std::string& title, const ParallelStep& parallel)
    : RunningStep(std::move(play), title), _parallel(parallel)
{
}

void RunningParallel::begin()
{
  for (const auto& step : _parallel.steps)
    _branches.push_back(makeRunningStep(step, sharedPlay()));
  _open = _branches.size();
  if (_open == 0)
    return end();
  for (const auto& branch : _branches)
    branch->start([this](const Outcome& outcome) { branchEnded(outcome); });
}

void RunningParallel::branchEnded(const Outcome& outcome)
{
  if (outcome && !_failure)
  {
    _failure = outcome;
    stopBranches();
  }
  if (--_open == 0)
    end(_failure);
}

void RunningParallel::stopBranches()
{
  for (const auto& branch : _branches)
    branch->stop();
}

std::shared_ptr<RunningStep> makeRunningStep(const Step& step, const std::shared_ptr<const Play>& play)
{
  return std::visit(MakeRunning(play, step.title), step.action);
}

} // namespace ZB::FrameManager
