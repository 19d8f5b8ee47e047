#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/thread/mutex.hpp>

#include <behaviormanager/catalogue.hpp>
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

/// One instance in the frame manager: its id, where it comes from, and the
/// connections made to hear of its end. Its callbacks hold it, so that a late
/// report knows what it belongs to, also when the record has gone on to the
/// next instance or the module is gone.
struct BehaviorPlay
{
  BehaviorPlay(std::string behaviorPath, std::string id, Catalogue::Installation installed)
      : path(std::move(behaviorPath)), fmId(std::move(id)), installation(installed)
  {
  }

  const std::string path;
  const std::string fmId; ///< empty for that of a record which is not loaded
  const Catalogue::Installation installation;
  std::atomic<vu::SignalLink> stoppedLink{vu::SignalBase::invalidSignalLink};
  std::atomic<vu::SignalLink> failedLink{vu::SignalBase::invalidSignalLink};

  struct Failure
  {
    std::string second, third; ///< as reported: step and message
  };

  // Guarded by the mutex of the registry.
  int starting = 0;               ///< starts that have not ended; until then reports are only kept
  bool stopReported = false;      ///< the end was reported
  std::optional<Failure> failure; ///< reported while starting, not yet announced
};

/// The runtime record of one behavior. The registry owns it, from the first
/// time that somebody asks about the behavior until the module ends. It always
/// has a play, which holds id and links. Thread-safe.
class BehaviorInfo
{
public:
  explicit BehaviorInfo(std::string path = {});
  BehaviorInfo(const BehaviorInfo&) = delete;
  BehaviorInfo& operator=(const BehaviorInfo&) = delete;

  /// Serialises loading, starting and unloading of this behavior.
  std::shared_ptr<boost::mutex> loadingMutex() const { return _loadingMutex; }
  /// Serialises running and stopping of this behavior.
  std::shared_ptr<boost::mutex> runningMutex() const { return _runningMutex; }

  BehaviorState state() const;
  /// Non-empty exactly while the behavior is loaded in the frame manager.
  std::string fmId() const { return play()->fmId; }
  /// SignalBase::invalidSignalLink where there is no connection.
  vu::SignalLink behaviorStoppedLink() const { return play()->stoppedLink; }
  vu::SignalLink behaviorFailedLink() const { return play()->failedLink; }
  /// Never null.
  std::shared_ptr<BehaviorPlay> play() const;

  /// False when the state is that one already.
  bool setState(BehaviorState state);
  /// Begins another play, without links.
  void setFmId(const std::string& fmId, Catalogue::Installation installation = Catalogue::noInstallation);
  void setBehaviorStoppedLink(const vu::SignalLink& link) { play()->stoppedLink = link; }
  void setBehaviorFailedLink(const vu::SignalLink& link) { play()->failedLink = link; }

private:
  mutable boost::mutex _mutex; // guards _state and _play
  const std::shared_ptr<boost::mutex> _loadingMutex;
  const std::shared_ptr<boost::mutex> _runningMutex;
  BehaviorState _state = BehaviorState::Unknown;
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
