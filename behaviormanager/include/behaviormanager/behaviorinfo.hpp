#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/thread/mutex.hpp>

#include <vu/signal.hpp>

namespace ZB::BehaviorManager
{

/// The values are relied upon: a behavior is loaded when its state with the
/// lowest bit set equals 3.
enum class BehaviorState : std::int32_t
{
  Unknown = 0, ///< never seen, or its package has been removed
  Stopped = 1, ///< installed, not loaded
  Loaded = 2,  ///< loaded in the frame manager, not running
  Running = 3
};

constexpr bool isLoaded(BehaviorState state) { return (static_cast<std::int32_t>(state) | 1) == 3; }

/// One instance in the frame manager, as far as it is played: its id, and the
/// connections made to hear of its end. Its callbacks hold it, so that a late
/// report knows what it belongs to, also when the record has gone on to the
/// next instance or the module is gone.
struct BehaviorPlay
{
  BehaviorPlay(std::string behaviorPath, std::string id) : path(std::move(behaviorPath)), fmId(std::move(id)) {}

  const std::string path;
  const std::string fmId;
  std::atomic<vu::SignalLink> stoppedLink{vu::SignalBase::invalidSignalLink};
  std::atomic<vu::SignalLink> failedLink{vu::SignalBase::invalidSignalLink};

  // These are guarded by the module's registry mutex.
  bool starting = false;     ///< startBehavior() has not announced Running yet
  bool stopReported = false; ///< the end was reported
  /// A failure reported while starting: step and message.
  std::optional<std::pair<std::string, std::string>> failure;
};

/// The runtime record of one behavior. The module owns it, from the first time
/// that somebody asks about the behavior until the module ends. Thread-safe.
class BehaviorInfo
{
public:
  BehaviorInfo();
  BehaviorInfo(const BehaviorInfo&) = delete;
  BehaviorInfo& operator=(const BehaviorInfo&) = delete;

  /// Serialises loading, starting and unloading of this behavior.
  std::shared_ptr<boost::mutex> loadingMutex() const { return _loadingMutex; }
  /// Serialises running and stopping of this behavior.
  std::shared_ptr<boost::mutex> runningMutex() const { return _runningMutex; }

  BehaviorState state() const;
  /// Non-empty exactly while the behavior is loaded in the frame manager.
  std::string fmId() const;
  /// SignalBase::invalidSignalLink where there is no connection.
  vu::SignalLink behaviorStoppedLink() const;
  vu::SignalLink behaviorFailedLink() const;
  /// The play that the links belong to; null before the first.
  std::shared_ptr<BehaviorPlay> play() const;

  /// False when the state is that one already.
  bool setState(BehaviorState state);
  void setFmId(const std::string& fmId);
  void setBehaviorStoppedLink(const vu::SignalLink& link);
  void setBehaviorFailedLink(const vu::SignalLink& link);
  void setPlay(std::shared_ptr<BehaviorPlay> play);

private:
  mutable boost::mutex _mutex; // guards the members below the next two
  const std::shared_ptr<boost::mutex> _loadingMutex;
  const std::shared_ptr<boost::mutex> _runningMutex;
  BehaviorState _state = BehaviorState::Unknown;
  std::string _fmId;
  vu::SignalLink _behaviorStoppedLink = vu::SignalBase::invalidSignalLink;
  vu::SignalLink _behaviorFailedLink = vu::SignalBase::invalidSignalLink;
  std::shared_ptr<BehaviorPlay> _play;
};

/// Holds a record's loading mutex for its life.
class BehaviorLoadingLocker
{
public:
  explicit BehaviorLoadingLocker(BehaviorInfo* info) : _info(info) { _info->loadingMutex()->lock(); }
  ~BehaviorLoadingLocker() { _info->loadingMutex()->unlock(); }
  BehaviorLoadingLocker(const BehaviorLoadingLocker&) = delete;
  BehaviorLoadingLocker& operator=(const BehaviorLoadingLocker&) = delete;

private:
  BehaviorInfo* const _info;
};

/// Holds a record's running mutex for its life.
class BehaviorRunningLocker
{
public:
  explicit BehaviorRunningLocker(BehaviorInfo* info) : _info(info) { _info->runningMutex()->lock(); }
  ~BehaviorRunningLocker() { _info->runningMutex()->unlock(); }
  BehaviorRunningLocker(const BehaviorRunningLocker&) = delete;
  BehaviorRunningLocker& operator=(const BehaviorRunningLocker&) = delete;

private:
  BehaviorInfo* const _info;
};

} // namespace ZB::BehaviorManager
