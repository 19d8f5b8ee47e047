#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <behaviorinstance.hpp>
#include <playpool.hpp>
#include <projectloader.hpp>
#include <vu/gate.hpp>
#include <vu/line.hpp>
#include <vu/signal.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

/// Plays behaviors from their project files (docs/packages.md).
///
/// Every instance ends in the same order: it leaves the list, behaviorFailed
/// is emitted if it failed, then instanceEnded and behaviorStopped, and then
/// those who wait for it get the outcome. An end by itself is announced on the
/// broker's pool, a deletion on the deleter's thread, before deleteBehavior()
/// returns. The start of an instance is announced before its first step, and
/// so before its end, unless it is deleted during that very announcement.
///
/// A behavior may call what its package's manifest says (packages::Rights),
/// whoever plays it, and so may its programs: a token that the service
/// "Tokens" makes for the run, where there is one, lets them in at "url".
///
/// Configuration: "url", and the file "certificate" that it is known by, for the
/// processes' environment;
/// "framemanager": {"terminateGraceMs": milliseconds between SIGTERM and
/// SIGKILL, "createTimeoutMs", "playTimeoutMs": the longest that
/// createBehavior() and playBehavior() may take, "guard": the path of
/// tarvik-guard, if it is not beside the library, "environment": names of the
/// variables that processes get of this one's, besides the common ones}.
class ZBFrameManager final : public ZBModule
{
public:
  ZBFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name);
  /// Ends all instances, announces their ends and joins the threads.
  ~ZBFrameManager() override;

  std::string createBehavior(const std::string& packageDirectory, const std::string& projectFile, const std::string& name);
  void playBehavior(const std::string& id);
  vu::Future<void> waitForStopped(const std::string& id);
  std::set<std::string> behaviors() const;
  /// Throws, when all is done, where something of it could not be ended.
  void deleteBehavior(const std::string& id);
  /// Stops all instances, refuses further ones and returns at once. Their
  /// programs have one deadline in common, however late and in whatever order
  /// the instances are deleted.
  void beginClosing();
  /// Completes when one of the threads that behaviors play on has come to it.
  vu::Future<void> ping();
  /// See OutputBudget; of all behaviors since the start.
  std::int64_t linesLeftOut() const;

  vu::Signal<std::string> behaviorStopped;                          ///< id
  vu::Signal<std::string, std::string, std::string> behaviorFailed; ///< id, step, message
  /// id, name, and on whose behalf it is played
  vu::Signal<std::string, std::string, std::string> instanceStarted;
  /// id, name, outcome ("finished", "failed", "stopped" by a deletion, or
  /// "shutdown" by the end of the frame manager), step and message of a
  /// failure (of another end: what of it could not be ended, if anything), and
  /// on whose behalf it was stopped
  vu::Signal<std::string, std::string, std::string, std::string, std::string, std::string> instanceEnded;

private:
  struct Entry
  {
    /// Null once its end is being announced.
    std::shared_ptr<FrameManager::BehaviorInstance> instance;
    vu::Promise<void> stopped;
  };

  using Instances = std::vector<std::pair<std::string, std::shared_ptr<FrameManager::BehaviorInstance>>>;

  Instances held() const;
  /// With the mutex held.
  void refuseWhenClosing(const std::string& method) const;
  std::shared_ptr<FrameManager::BehaviorInstance> instance(const std::string& id, const std::string& method) const;
  /// Carries out the end of an instance that has ended; does nothing when
  /// another thread does, or has done, so.
  void conclude(const std::string& id, const FrameManager::Ending& ending);

  const std::shared_ptr<vu::Gate> _gate;
  const std::shared_ptr<const FrameManager::PlaySettings> _settings;
  FrameManager::ProjectLoader _loader;
  /// Announces ends while closing one by one: all at the same time would make
  /// as many threads wait for each other.
  const std::shared_ptr<vu::Line> _lastEnds;
  FrameManager::PlayPool _pool;

  mutable std::mutex _mutex; // guards the members below
  bool _closing = false;
  std::uint64_t _lastId = 0;
  /// Those held, and those whose end is being announced.
  std::map<std::string, Entry> _entries;
  /// What the last failures were, by id. Of any other instance that has ended
  /// there is nothing to tell but that it has.
  std::map<std::string, std::string> _failures;
  std::deque<std::map<std::string, std::string>::const_iterator> _failuresByAge; ///< the oldest first
};

} // namespace ZB
