#include <zb/callgate.hpp>

#include <utility>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/localobject.hpp>

namespace ZB
{

using Kind = vu::ServiceError::Kind;

Rights rightsOf(vu::Role role)
{
  return [role](const Call& call, vu::Role least) -> std::optional<std::string>
  {
    if (role >= least)
      return std::nullopt;
    return "the role " + std::string(roleName(role)) + " may not call " + call.fullName();
  };
}

Rights everyRight()
{
  return [](const Call&, vu::Role) { return std::nullopt; };
}

vu::ServiceError tooManyCalls(const std::string& service, const std::string& method, const ConnectionCalls& calls)
{
  return {service, method, "this connection has " + std::to_string(calls.limits().open) + " calls open already: wait for an answer",
          Kind::Overloaded};
}

/// What a call holds from its beginning to its end.
class CallGate::Passage
{
public:
  Passage(std::shared_ptr<CallWatch> watch, std::shared_ptr<ConnectionCalls> calls) : _watch(std::move(watch)), _calls(std::move(calls)) {}

  void takePlace(const Call& call)
  {
    if (!_calls)
      return;
    if (!_calls->enter())
      throw tooManyCalls(call.service, call.method, *_calls);
    _counted = true;
  }

  void underWay() const
  {
    if (_watch)
      _watch->underWay();
  }

  void end(const std::exception_ptr& failure) const
  {
    if (_counted)
      _calls->leave();
    if (_watch)
      _watch->ended(failure);
  }

  bool isLookedAfter() const { return _watch || _counted; }

private:
  const std::shared_ptr<CallWatch> _watch;
  const std::shared_ptr<ConnectionCalls> _calls;
  bool _counted = false;
};

CallGate::CallGate(std::shared_ptr<vu::LocalSession> session, CallObserver observer)
    : _session(std::move(session)), _observer(std::move(observer))
{
}

/// `make` makes the call and sees to the end of the passage, unless it throws.
template <typename Make> auto CallGate::pass(const Call& call, const Caller& caller, Make make) const
{
  const auto object = _session->find(call.service);
  const auto least = object ? object->leastRole(call.method) : vu::leastRoleByName(call.method);
  Passage passage(_observer ? _observer(call, caller, least) : nullptr, caller.calls);
  try
  {
    passage.takePlace(call);
    if (const auto reason = caller.rights(call, least))
      throw vu::ServiceError(call.service, call.method, *reason, Kind::NotAllowed);
    if (!object)
      throw vu::unknownService(call.service, call.method);
    const vu::CallerScope scope(caller.name);
    return make(*object, std::as_const(passage));
  }
  catch (...)
  {
    passage.end(std::current_exception());
    throw;
  }
}

vu::Future<vu::Value> CallGate::post(Call call, const Caller& caller, std::function<bool()> wanted) const
{
  return pass(call, caller,
              [&](vu::LocalObject& object, const Passage& passage)
              {
                const auto result = object.post(call.method, std::move(call.arguments), std::move(wanted));
                if (!passage.isLookedAfter())
                  return result;
                const vu::Promise<vu::Value> answer(object.pool());
                result.then(
                    [passage, answer](const vu::Future<vu::Value>& end)
                    {
                      passage.end(end.exception());
                      end.forward(answer, [](const vu::Value& value) { return value; });
                    });
                return answer.future();
              });
}

void CallGate::line(Call& call, const Caller& caller, std::size_t bytes, std::function<void(const vu::Future<vu::Value>& end)> done) const
{
  pass(call, caller,
       [&](vu::LocalObject& object, const Passage& passage)
       {
         const auto finish = [passage, done = std::move(done)](const vu::Future<vu::Value>& end)
         {
           passage.end(end.exception());
           done(end);
         };
         const auto refuse = [finish, service = call.service, method = call.method](const std::exception_ptr& reason)
         {
           try
           {
             std::rethrow_exception(reason);
           }
           catch (const vu::ServiceError& error) // which does not know of whom it is
           {
             finish(vu::makeFailedFuture<vu::Value>(
                 std::make_exception_ptr(vu::ServiceError(service, method, error.description(), error.kind()))));
           }
         };
         const auto urgent = object.isUrgent(call.method);
         auto carryOut = [object = object.shared_from_this(), caller = caller.name, call = std::move(call), finish]
         {
           const vu::CallerScope scope(caller);
           const auto result = object->call(call.method, call.arguments);
           // What is there already is told on this thread: it costs less than
           // another turn on the pool, and counts among the connection's own.
           result.isFinished() ? finish(result) : result.then(finish);
         };
         caller.calls->push(object.pool(), {std::move(carryOut), refuse, bytes}, urgent);
       });
}

vu::Value CallGate::begin(const Call& call, const Caller& caller) const
{
  return pass(call, caller,
              [&call](vu::LocalObject& object, const Passage& passage)
              {
                const auto result = object.call(call.method, call.arguments);
                if (!result.isFinished())
                {
                  passage.underWay();
                  result.then([passage](const vu::Future<vu::Value>& end) { passage.end(end.exception()); });
                  return vu::Value();
                }
                auto value = result.value();
                passage.end(nullptr);
                return object.givesFuture(call.method) ? vu::Value() : value;
              });
}

} // namespace ZB
