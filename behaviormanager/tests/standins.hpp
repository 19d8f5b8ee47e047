#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <vu/future.hpp>
#include <vu/signal.hpp>
#include <vu/value.hpp>
#include <zb/zbmodule.hpp>

#include <testing/journal.hpp>

/// Stand-ins for the services at the module's outer edge: they record their
/// calls, refuse them on demand, and let a test in while a call is under way.
namespace ZB::BehaviorManager
{

using TestSupport::Journal;

/// What a test does in the middle of something else.
class Interruptions
{
public:
  /// Once, inside the next call of a method or the next emission of a signal,
  /// on the caller's thread, before it is carried out. `call` is the name, or
  /// that and the first argument: "declareEvent BehaviorsRun".
  void during(const std::string& call, std::function<void()> action);

  /// The place where it happens.
  void enter(const std::string& name, const std::string& argument = {});

private:
  std::mutex _mutex; // guards _actions
  std::map<std::string, std::function<void()>> _actions;
};

/// A service of methods that are given as functions. Each call is first let in
/// here, then written down: "<method> <arguments>".
class StandIn : public ZBModule, public Interruptions
{
public:
  StandIn(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal, const std::function<void(StandIn&)>& offerAll = {});

  /// The next such call throws a ZBError.
  void refuse(const std::string& call, const std::string& text);

  /// While the service is constructed.
  template <typename F> void offer(const std::string& method, const F& function) { offer(method, function, &F::operator()); }

private:
  template <typename F, typename R, typename... Arguments>
  void offer(const std::string& method, const F& function, R (F::*)(Arguments...) const)
  {
    const auto call = [this, method, function](Arguments... arguments) -> R
    {
      called(method, vu::Value::array({vu::Value(arguments)...}));
      return function(arguments...);
    };
    const auto kept = std::make_shared<decltype(call)>(call);
    _calls.push_back(kept);
    functionName(method, getName(), "A stand-in's method");
    bindMethod(kept.get(), &std::remove_const_t<decltype(call)>::operator());
  }
  void called(const std::string& method, const vu::Value& arguments);

  Journal& _journal;
  std::vector<std::shared_ptr<const void>> _calls;
};

/// Plays behaviors as scripts say, by the behavior's name; without a script
/// until it is deleted or a test ends it. Like the real one it refuses an empty
/// package directory, takes an instance off its list before it reports the end,
/// exactly once, and completes the waits afterwards. A test may come in "played",
/// behind what the script does, and "stopped", before the report of a stop, too.
class StandInFrameManager final : public StandIn
{
public:
  using Failure = std::optional<std::string>;

  enum class Script
  {
    Play,         ///< until ended
    EndInPlay,    ///< ends inside playBehavior
    FailInPlay,   ///< fails inside playBehavior
    RefuseToPlay, ///< playBehavior throws; the instance stays
    RefuseToLoad  ///< createBehavior throws
  };

  StandInFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal);

  void script(const std::string& behavior, Script script);
  /// From now on ends are not reported and waits stay open, until release().
  void hold();
  void release();
  /// The instance ends by itself; with a message: fails. False when it had ended.
  bool end(const std::string& id, const Failure& failure = std::nullopt);

  std::set<std::string> behaviors();
  std::size_t connections() const { return _stopped.connectionCount() + _failed.connectionCount(); }

private:
  std::string create(const std::string& directory, const std::string& name);
  vu::Future<void> waitForStopped(const std::string& id);
  void play(const std::string& id);
  void report(const std::string& id, const Failure& failure);

  struct Instance
  {
    std::string name;
    vu::Promise<void> ended;
  };

  vu::Signal<std::string> _stopped;
  vu::Signal<std::string, std::string, std::string> _failed;
  std::mutex _framesMutex; // guards the members below
  int _lastId = 0;
  bool _holding = false;
  std::map<std::string, Script> _scripts;
  std::map<std::string, Instance> _instances; // all there ever were, by id
  std::set<std::string> _held;                // those that have not ended
  std::vector<std::pair<std::string, Failure>> _heldReports;
};

} // namespace ZB::BehaviorManager
