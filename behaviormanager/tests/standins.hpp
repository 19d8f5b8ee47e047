#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <vu/future.hpp>
#include <vu/packageinfo.hpp>
#include <vu/signal.hpp>
#include <zb/zberror.hpp>
#include <zb/zbmodule.hpp>
#include <zb/zbvalue.hpp>

#include <testing/journal.hpp>

/// Stand-ins for the services at the module's outer edge: they record their
/// calls, refuse them on demand, and let a test in while a call is under way.
namespace ZB::BehaviorManager
{

using TestSupport::Journal;

class StandIn : public ZBModule
{
public:
  StandIn(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal)
      : ZBModule(std::move(broker), name), _journal(journal)
  {
  }

  enum Times
  {
    Once,
    Always
  };
  /// The next or every call of a method throws a ZBError. `call` is the
  /// method's name, or that and the first argument: "declareEvent BehaviorsRun".
  void refuse(const std::string& call, const std::string& text, Times times = Once);
  void acceptAll();
  /// Runs inside every call of a method, on the caller's thread, before it is carried out.
  void during(const std::string& method, std::function<void()> action);

protected:
  template <typename C, typename M> void bind(const std::string& method, C* instance, M member)
  {
    functionName(method, getName(), "A stand-in's method");
    bindMethod(instance, member);
  }
  /// To be called first in each method.
  void enter(const std::string& method, const std::string& argument = {});
  Journal& journal() { return _journal; }

private:
  Journal& _journal;
  std::mutex _mutex; // guards both below
  std::map<std::string, std::pair<std::string, Times>> _refusals;
  std::map<std::string, std::function<void()>> _actions;
};

/// Journal: "memory <method> <key>" for calls, "event <key> <value>" for raises.
class StandInMemory final : public StandIn
{
public:
  StandInMemory(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal);

private:
  void declareEvent(const std::string& key);
  void raiseMicroEvent(const std::string& key, const ZBValue& value);
  void subscribeToEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method);
  void subscribeToMicroEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method);
};

/// Plays behaviors as scripts say, by the behavior's name; without a script
/// until it is deleted or a test ends it. Like the real one it refuses an empty
/// package directory, takes an instance off its list before it reports the end,
/// exactly once, and completes the waits afterwards. Journal: "frames <method>
/// <argument>". The report of a stop counts as a call of "stopped".
class StandInFrameManager final : public StandIn
{
public:
  enum class Script
  {
    Play,        ///< until ended
    EndInPlay,   ///< ends inside playBehavior
    FailInPlay,  ///< fails inside playBehavior
    RefuseToPlay ///< playBehavior throws; the instance stays
  };

  StandInFrameManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal);

  void script(const std::string& behavior, Script script);
  /// From now on ends are not reported and waits stay open, until release().
  void hold();
  void release();
  /// The instance ends by itself; with a message: fails.
  void end(const std::string& id, const std::optional<std::string>& failure = std::nullopt);

  std::set<std::string> behaviors();
  std::size_t connections() const { return _stopped.connectionCount() + _failed.connectionCount(); }

private:
  std::string createBehavior(const std::string& directory, const std::string& file, const std::string& name);
  void playBehavior(const std::string& id);
  vu::Future<void> waitForStopped(const std::string& id);
  void deleteBehavior(const std::string& id);
  void report(const std::string& id, const std::optional<std::string>& failure);

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
  std::vector<std::pair<std::string, std::optional<std::string>>> _heldReports;
};

class StandInPackageManager final : public StandIn
{
public:
  StandInPackageManager(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal, std::vector<vu::PackageInfo> packages);

private:
  std::vector<vu::PackageInfo> packages();
  const std::vector<vu::PackageInfo> _packages;
};

/// Holds one file. Journal: "preferences read <flag>", "preferences write <flag>".
class StandInPreferences final : public StandIn
{
public:
  StandInPreferences(std::shared_ptr<ZBBroker> broker, const std::string& name, Journal& journal);

  void setFile(const ZBValue& settings);
  vu::Value file();

private:
  ZBValue readPrefFile(const std::string& name, bool flag);
  void writePrefFile(const std::string& name, const ZBValue& settings, bool flag);

  std::mutex _fileMutex; // guards _file
  std::optional<ZBValue> _file;
};

} // namespace ZB::BehaviorManager
