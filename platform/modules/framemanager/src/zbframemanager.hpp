#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <behaviorinstance.hpp>
#include <playpool.hpp>
#include <vu/gate.hpp>
#include <vu/signal.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

/// Plays behaviors from their project files (docs/packages.md).
///
/// Every instance ends in the same order: it leaves the list, behaviorFailed
/// is emitted if it failed, behaviorStopped is emitted, and then those who
/// wait for it get the outcome. An end by itself is announced on the broker's
/// pool, a deletion on the deleter's thread, before deleteBehavior() returns.
///
/// Configuration: "url" and "tokenFile" for the processes' environment;
/// "framemanager": {"terminateGraceMs": milliseconds between SIGTERM and SIGKILL}.
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
  void deleteBehavior(const std::string& id);

  vu::Signal<std::string> behaviorStopped;                          ///< id
  vu::Signal<std::string, std::string, std::string> behaviorFailed; ///< id, step, message

private:
  struct Entry
  {
    /// Null once it has left the list.
    std::shared_ptr<FrameManager::BehaviorInstance> instance;
    vu::Promise<void> stopped;
  };

  std::shared_ptr<FrameManager::BehaviorInstance> instance(const std::string& id, const std::string& method) const;
  /// Carries out the end of an instance that has ended; does nothing when
  /// another thread does, or has done, so.
  void conclude(const std::string& id, const FrameManager::Outcome& outcome);

  const std::shared_ptr<vu::Gate> _gate;
  const std::shared_ptr<const FrameManager::PlaySettings> _settings;
  FrameManager::PlayPool _pool;

  mutable std::mutex _mutex; // guards the members below
  std::uint64_t _lastId = 0;
  /// Those held, those whose end is being announced, and the failed ones remembered.
  std::map<std::string, Entry> _entries;
  /// Ids of the failures remembered, the oldest first. Of any other instance
  /// that has ended there is nothing to tell but that it has.
  std::deque<std::string> _failures;
};

} // namespace ZB
