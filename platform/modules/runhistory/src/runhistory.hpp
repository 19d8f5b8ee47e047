#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <rundatabase.hpp>
#include <runstatistics.hpp>
#include <vu/gate.hpp>
#include <vu/object.hpp>
#include <vu/signal.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

/// The service "RunHistory": which behavior played when, on whose behalf, and
/// why it ended.
///
/// It hears of starts and ends from the frame manager, through one line and so
/// in their order, and is loaded before the behavior manager, so that it is
/// there to hear of the ends that one brings about when it goes. A run's
/// "removed" and "shutdown" show by who has stopped it: the package manager
/// announces, and a module is destroyed, on its own behalf.
///
/// Everything is written and told in the frame manager's line, on the broker's
/// pool; whoever emits waits for nothing. What cannot be written is kept, told
/// and counted all the same, and written as soon as that is possible: the last
/// 1000 changes. Ids follow those of the database; before that could be opened,
/// they are preliminary. Thread-safe.
///
/// Configuration: "root"; "history": {"runs": how many are kept}.
class RunHistory final : public ZBModule
{
public:
  /// In ms since the epoch, UTC.
  using Now = std::function<std::int64_t()>;
  static std::int64_t systemNow();

  /// Throws a ZBError when there is no frame manager.
  RunHistory(std::shared_ptr<ZBBroker> broker, const std::string& name) : RunHistory(std::move(broker), name, systemNow) {}
  RunHistory(std::shared_ptr<ZBBroker> broker, const std::string& name, Now now);
  /// Takes what has been emitted so far, and ends all runs that are left with
  /// the host.
  ~RunHistory() override;

  /// See Run::toValue(); the newest first.
  std::vector<vu::Value> getRuns(const int& limit);
  /// See RunStatistics::toValue().
  vu::Value getStatistics() const;

  vu::Signal<vu::Value> runBegan; ///< the run
  vu::Signal<vu::Value> runEnded; ///< the run

private:
  using Clock = std::chrono::steady_clock;
  struct OpenRun
  {
    Run run;
    Clock::time_point begin;
  };
  struct End
  {
    std::string instance;
    Run::Outcome outcome = Run::Outcome::Shutdown;
    std::string step;
    std::string message;
    std::string by;
  };

  void connect();
  void began(const std::string& instance, const std::string& behavior, const std::string& by);
  /// False when no such run is open.
  bool ended(const End& end);
  /// With the mutex held: moves the runs that play with a clock that was set.
  void followClock();
  /// Does nothing for a second after a failure, unless it `must`.
  void writeDown(bool must = false);
  /// With _writes held: the first time, takes up the database.
  void takeUp();
  void tryLater();

  const Now _now;
  RunDatabase _database;
  const std::shared_ptr<vu::Gate> _gate = std::make_shared<vu::Gate>();
  vu::Object _frameManager;
  vu::SignalLink _startedLink = vu::SignalBase::invalidSignalLink;
  vu::SignalLink _endedLink = vu::SignalBase::invalidSignalLink;

  mutable std::mutex _mutex;            // guards the members up to _writable
  std::map<std::string, OpenRun> _open; ///< by instance
  std::deque<Run> _unwritten;
  RunStatistics _statistics;
  std::int64_t _lastId = 0;
  std::int64_t _clockAhead = 0; ///< of the time since the machine was started, in ms
  bool _takenUp = false;        ///< whether ids are those of the database
  bool _writable = true;        ///< whether the last write went well

  std::mutex _writes; // guards the members below and the order of writes; taken before _mutex
  Clock::time_point _nextTry = Clock::time_point::min();
  bool _triesLater = false;

  // Used in the line, and then by the destructor.
  /// The last ends of instances whose start was not heard of: they have not
  /// played, or were deleted while their start was announced.
  std::deque<End> _early;
};

} // namespace ZB
