#include <compositesteps.hpp>

#include <callstep.hpp>
#include <programstep.hpp>
#include <simplesteps.hpp>

namespace ZB::FrameManager
{

namespace
{

class MakePlayed
{
public:
  MakePlayed(const std::shared_ptr<const Play>& play, const std::string& title) : _play(play), _title(title) {}

  std::shared_ptr<PlayedStep> operator()(const EventStep& action) const { return make<PlayedCalls>(action); }
  std::shared_ptr<PlayedStep> operator()(const CallStep& action) const { return make<PlayedCalls>(action); }
  std::shared_ptr<PlayedStep> operator()(const WaitStep& action) const { return make<PlayedWait>(action); }
  std::shared_ptr<PlayedStep> operator()(const ProgramStep& action) const { return make<PlayedProgram>(action); }
  std::shared_ptr<PlayedStep> operator()(const SequenceStep& action) const { return make<PlayedSequence>(action); }
  std::shared_ptr<PlayedStep> operator()(const ParallelStep& action) const { return make<PlayedParallel>(action); }
  std::shared_ptr<PlayedStep> operator()(const LogStep& action) const { return make<PlayedLog>(action); }
  std::shared_ptr<PlayedStep> operator()(const FailStep& action) const { return make<PlayedFail>(action); }

private:
  template <typename Played, typename Action> std::shared_ptr<PlayedStep> make(const Action& action) const
  {
    return std::make_shared<Played>(_play, _title, action);
  }

  const std::shared_ptr<const Play>& _play;
  const std::string& _title;
};

} // namespace

PlayedSequence::PlayedSequence(std::shared_ptr<const Play> play, const std::string& title, const SequenceStep& sequence)
    : PlayedStep(std::move(play), title), _sequence(sequence)
{
}

void PlayedSequence::next()
{
  if (_position == _sequence.steps.size())
  {
    _position = 0;
    ++_round;
  }
  if (_sequence.steps.empty() || (_sequence.count && _round >= *_sequence.count))
    return end();
  _current = makePlayedStep(_sequence.steps[_position++], sharedPlay());
  _current->start([this](const Outcome& outcome) { currentEnded(outcome); });
}

void PlayedSequence::currentEnded(const Outcome& outcome)
{
  if (outcome || isStopping())
    return end(outcome);
  next();
}

PlayedParallel::PlayedParallel(std::shared_ptr<const Play> play, const std::string& title, const ParallelStep& parallel)
    : PlayedStep(std::move(play), title), _parallel(parallel)
{
}

void PlayedParallel::begin()
{
  for (const auto& step : _parallel.steps)
    _branches.push_back(makePlayedStep(step, sharedPlay()));
  _open = _branches.size();
  if (_open == 0)
    return end();
  for (const auto& branch : _branches)
    branch->start([this](const Outcome& outcome) { branchEnded(outcome); });
}

void PlayedParallel::branchEnded(const Outcome& outcome)
{
  if (outcome && !_failure)
  {
    _failure = outcome;
    stopBranches();
  }
  if (--_open == 0)
    end(_failure);
}

void PlayedParallel::stopBranches()
{
  for (const auto& branch : _branches)
    branch->stop();
}

std::shared_ptr<PlayedStep> makePlayedStep(const ProjectStep& step, const std::shared_ptr<const Play>& play)
{
  return std::visit(MakePlayed(play, step.title), step.action);
}

} // namespace ZB::FrameManager
