#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <playedstep.hpp>
#include <projectloader.hpp>
#include <vu/future.hpp>

namespace ZB::FrameManager
{

/// How an instance ended.
struct Ending
{
  enum class Kind
  {
    Finished,
    Failed,
    Stopped, ///< by a deletion
    Shutdown ///< by the end of the frame manager
  };

  Kind kind = Kind::Finished;
  Failure failure;       ///< where it failed
  std::string by;        ///< where it was stopped: on whose behalf
  std::string leftAlone; ///< what of it could not be ended, and why; most often empty
};

/// A behavior that may be played once. Thread-safe; its steps run on its strand.
class BehaviorInstance : public std::enable_shared_from_this<BehaviorInstance>
{
public:
  BehaviorInstance(std::shared_ptr<const PlaySettings> settings, std::shared_ptr<const LoadedBehavior> behavior, std::string name,
                   Strand strand, std::shared_ptr<vu::ThreadPool> continuations);

  const std::string& name() const { return _name; }

  /// Takes the one turn there is to play; false when it has been taken.
  bool takeTurn() { return !_turnTaken.exchange(true); }
  /// Plays on behalf of the current caller, who has taken the turn; returns
  /// when the first step begins, or none does any more. False when neither has
  /// happened within the limit: then no step ever begins.
  bool play(std::chrono::milliseconds limit);

  /// Begins to stop: no further step begins. ended() tells when nothing of it
  /// is left, which takes as long as its processes do. Played or not, as often
  /// as one likes; the first stop counts.
  void stop(Ending::Kind kind, const std::string& by = {});

  /// Takes back what its programs were let in with; once it has ended, on a
  /// thread that may block.
  void endToken() const;

  /// How it ended; a stop is no failure, whatever came of it.
  vu::Future<Ending> ended() const { return _ended.future(); }

private:
  void begin(const std::string& caller);
  void xStop(Ending ending);

  const std::shared_ptr<const PlaySettings> _settings;
  const std::shared_ptr<const LoadedBehavior> _behavior;
  const std::string _name;
  const Strand _strand;
  const vu::Promise<Ending> _ended;
  std::atomic<bool> _turnTaken = false;
  // Used on the strand only, and after the end by nobody else.
  std::shared_ptr<RunToken> _token;
  std::shared_ptr<PlayedStep> _root;
  std::optional<Ending> _stop;
};

} // namespace ZB::FrameManager
