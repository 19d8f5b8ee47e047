#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <boost/thread/mutex.hpp>

#include <behaviormanager/behaviorinfo.hpp>
#include <behaviormanager/catalogue.hpp>
#include <vu/signal.hpp>

namespace ZB::BehaviorManager
{

/// The runtime records of all behaviors by their installed names, the index of
/// the frame manager's ids, and the plays that have connections. It makes every
/// change in one step and tells what has changed; to announce that, when the
/// locks have been released, is up to the module. Thread-safe; nothing is
/// called out of it.
class Registry
{
public:
  /// Made on first use; it stays until clear().
  BehaviorInfo* xBehaviorInfo(const std::string& path);
  BehaviorLoadingLocker xBehaviorLoadingLock(const std::string& path) { return BehaviorLoadingLocker(xBehaviorInfo(path)); }
  BehaviorRunningLocker xBehaviorRunningLock(const std::string& path) { return BehaviorRunningLocker(xBehaviorInfo(path)); }
  BehaviorState xBehaviorState(const std::string& path) { return xBehaviorInfo(path)->state(); }
  std::string xFrameManagerId(const std::string& path) { return xBehaviorInfo(path)->fmId(); }
  vu::SignalLink xBehaviorStoppedLink(const std::string& path) { return xBehaviorInfo(path)->behaviorStoppedLink(); }
  vu::SignalLink xBehaviorFailedLink(const std::string& path) { return xBehaviorInfo(path)->behaviorFailedLink(); }

  /// Gives the state before, nothing when it was the same.
  std::optional<BehaviorState> exchangeState(const std::string& path, BehaviorState newState);
  /// For an id, `installation` is that of the package that it is an instance of.
  void xSetFrameManagerId(const std::string& path, const std::string& fmId,
                          Catalogue::Installation installation = Catalogue::noInstallation);
  /// Takes the record from its instance to Stopped, if `fmId` still is that
  /// instance: a report that comes late cannot touch the next one. Gives the
  /// state before where it has changed.
  std::optional<BehaviorState> endInstance(const std::string& path, const std::string& fmId);

  /// Sorted.
  std::vector<std::string> behaviorsWhere(bool (*matches)(BehaviorState));
  /// The behavior of an instance; nothing for an id that no record holds.
  std::optional<std::string> behaviorOf(const std::string& fmId) const;

  /// The play of the record's instance, which from now on keeps its reports
  /// until as many calls of endStart(). One whose last start failed still has
  /// its connections, and is given again: dropping them would drop reports
  /// that are on their way. Called with the loading lock held.
  std::shared_ptr<BehaviorPlay> beginStart(const std::string& path);
  void xSetBehaviorLinks(const std::string& path, const vu::SignalLink& stoppedLink, const vu::SignalLink& failedLink);

  struct Reports
  {
    std::optional<BehaviorPlay::Failure> failure;
    bool stopped = false;
  };
  /// What was reported and is to be acted on now, by the last of the starts
  /// that overlap. One that is given a failure announces it and calls again:
  /// until then a stop is only kept, or it would overtake the failure.
  Reports endStart(const std::shared_ptr<BehaviorPlay>& play);

  /// False when the report was kept for the end of the start.
  bool reportStop(const std::shared_ptr<BehaviorPlay>& play);
  bool reportFailure(const std::shared_ptr<BehaviorPlay>& play, const std::string& second, const std::string& third);

  using Links = std::array<vu::SignalLink, 2>;
  bool isOpen(const std::shared_ptr<BehaviorPlay>& play) const;
  /// Gives the links, which are to be disconnected and which the play has no
  /// more; invalid ones where it had none.
  Links close(const std::shared_ptr<BehaviorPlay>& play);
  /// Deletes the records and closes the plays, whose links it gives.
  std::vector<Links> clear();

private:
  static Links takeLinks(BehaviorPlay& play);
  void eraseId(const std::string& fmId);

  // Lock order: _mutex, then a record's own mutex or _fmIdsMutex. A record's
  // loading and running mutexes are taken with none of these held.
  mutable boost::mutex _mutex; // guards _behaviors and _openPlays, and is held for every change of a state, an id or a play
  std::map<std::string, std::unique_ptr<BehaviorInfo>> _behaviors;
  std::set<std::shared_ptr<BehaviorPlay>> _openPlays; // those that may have connections
  mutable boost::mutex _fmIdsMutex;                   // guards _fmIds
  std::map<std::string, std::string> _fmIds;          // frame manager's id -> behavior
};

} // namespace ZB::BehaviorManager
