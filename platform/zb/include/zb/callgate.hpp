#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <vu/error.hpp>
#include <vu/future.hpp>
#include <vu/role.hpp>
#include <vu/session.hpp>
#include <vu/value.hpp>
#include <zb/connectioncalls.hpp>

namespace ZB
{

/// One call of a service.
struct Call
{
  std::string service;
  std::string method;
  vu::Value arguments = vu::Value::array();

  std::string fullName() const { return service + "." + method; }
};

/// Whether a call may be made: why not, none where it may. `least` is the
/// first role that may, by what the method declares or else by its name.
using Rights = std::function<std::optional<std::string>(const Call& call, vu::Role least)>;

Rights rightsOf(vu::Role role);
Rights everyRight();

/// What a connection gets to hear that has as many calls open as it may.
vu::ServiceError tooManyCalls(const std::string& service, const std::string& method, const ConnectionCalls& calls);

/// Who wants a call that does not come from a module's own code.
struct Caller
{
  std::string name; ///< which the service sees as vu::currentCaller()
  Rights rights;
  std::string address = {}; ///< where it is, for the log
  /// Of its connection; null: no bound but the pool's.
  std::shared_ptr<ConnectionCalls> calls = {};
};

/// Looks on at one call; on any thread, but not on two at once.
class CallWatch
{
public:
  virtual ~CallWatch() = default;

  /// Whoever called is answered now, though the end is still to come.
  virtual void underWay() = 0;
  /// Once, before the caller learns of it. `failure` is null where all went
  /// well; a refusal is one, too.
  virtual void ended(const std::exception_ptr& failure) = 0;
};

/// Asked at the beginning of every call, refused ones included. The arguments
/// do not live as long as the call.
using CallObserver = std::function<std::shared_ptr<CallWatch>(const Call& call, const Caller& caller, vu::Role least)>;

/// The one way to services for whoever is no module: what comes over a wire,
/// and the steps of behaviors. It looks the service up, checks the caller's
/// rights and bound, has the call made in the caller's name, and tells the
/// observer. Thread-safe; calls that are open outlive it.
class CallGate
{
public:
  explicit CallGate(std::shared_ptr<vu::LocalSession> session, CallObserver observer = {});

  /// Posts the call to the pool. Throws a vu::ServiceError when it is refused:
  /// of kind NotAllowed, UnknownService or Overloaded; all else is in the
  /// future. `wanted` is asked once, when a thread takes the call up; where it
  /// says no, the call is not made and the future fails.
  vu::Future<vu::Value> post(Call call, const Caller& caller, std::function<bool()> wanted = {}) const;

  /// The same for a caller with a connection, whose line the call stands in
  /// until it is its turn; `bytes` is the size of the request. `done` gets the
  /// end, once, on the pool and for a call that is not carried out on any
  /// thread. What post() throws is thrown, but for a pool that is overloaded:
  /// that is an end. `call` keeps its arguments then.
  void line(Call& call, const Caller& caller, std::size_t bytes, std::function<void(const vu::Future<vu::Value>& end)> done) const;

  /// Makes the call on this thread and gives the result; null at once where
  /// the method gives a future, which is then under way. Throws what post()
  /// does and what the call does.
  vu::Value begin(const Call& call, const Caller& caller) const;

private:
  class Passage;
  template <typename Make> auto pass(const Call& call, const Caller& caller, Make make) const;

  const std::shared_ptr<vu::LocalSession> _session;
  const CallObserver _observer;
};

} // namespace ZB
