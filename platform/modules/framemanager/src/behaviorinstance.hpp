#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <runningstep.hpp>
#include <vu/future.hpp>

namespace ZB::FrameManager
{

/// A behavior that may be played once. Thread-safe; its steps run on its strand.
class BehaviorInstance : public std::enable_shared_from_this<BehaviorInstance>
{
public:
  BehaviorInstance(std::shared_ptr<const PlaySettings> settings, std::shared_ptr<const Project> project, std::string name, Strand strand,
                   std::shared_ptr<vu::ThreadPool> continuations);

  /// Plays on behalf of the current caller. False when it has been played already.
  bool play();

  /// Begins to stop: no further step begins. ended() tells when nothing of it
  /// is left, which takes as long as its processes do. Played or not, as often
  /// as one likes.
  void stop();

  /// How it ended; a stop is no failure, whatever came of it.
  vu::Future<Outcome> ended() const { return _ended.future(); }

private:
  void begin(const std::string& caller);
  void xStop();

  const std::shared_ptr<const PlaySettings> _settings;
  const std::shared_ptr<const Project> _project;
  const std::string _name;
  const Strand _strand;
  const vu::Promise<Outcome> _ended;
  std::atomic<bool> _played = false;
  // Used on the strand only.
  std::shared_ptr<RunningStep> _root;
  bool _stopping = false;
};

} // namespace ZB::FrameManager
