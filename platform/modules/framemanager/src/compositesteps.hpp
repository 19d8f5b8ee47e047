#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <playedstep.hpp>

namespace ZB::FrameManager
{

/// One step after another, as often as the sequence says.
class PlayedSequence final : public PlayedStep
{
public:
  PlayedSequence(std::shared_ptr<const Play> play, const std::string& title, const SequenceStep& sequence);

private:
  void begin() override { next(); }
  void letGo() override { _current->stop(); }
  void next();
  void currentEnded(const Outcome& outcome);

  const SequenceStep& _sequence;
  std::uint64_t _round = 0;
  std::size_t _position = 0;
  std::shared_ptr<PlayedStep> _current;
};

/// All steps at once. The first failure stops the others, and is the whole's
/// when all have ended.
class PlayedParallel final : public PlayedStep
{
public:
  PlayedParallel(std::shared_ptr<const Play> play, const std::string& title, const ParallelStep& parallel);

private:
  void begin() override;
  void letGo() override { stopBranches(); }
  void branchEnded(const Outcome& outcome);
  void stopBranches();

  const ParallelStep& _parallel;
  std::vector<std::shared_ptr<PlayedStep>> _branches;
  std::size_t _open = 0;
  Outcome _failure;
};

} // namespace ZB::FrameManager
