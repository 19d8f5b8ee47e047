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

/// What a call holds from its beginning to its end.
class CallGate::Passage
{
public:
  Passage(std::shared_ptr<CallWatch> watch, std::shared_ptr<CallBound> bound) : _watch(std::move(watch)), _bound(std::move(bound)) {}

  void takePlace(const Call& call)
  {
    if (!_bound)
      return;
    _counted = true;
    if (_bound->open++ >= _bound->maximum)
      throw vu::ServiceError(call.service, call.method,
                             "this connection has " + std::to_string(_bound->maximum) + " calls open already: wait for an answer",
                             Kind::Overloaded);
  }

  void underWay() const
  {
    if (_watch)
      _watch->underWay();
  }

  void end(const std::exception_ptr& failure) const
  {
    if (_counted)
      --_bound->open;
    if (_watch)
      _watch->ended(failure);
  }

  bool isLookedAfter() const { return _watch || _counted; }

private:
  const std::shared_ptr<CallWatch> _watch;
  const std::shared_ptr<CallBound> _bound;
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
  Passage passage(_observer ? _observer(call, caller, least) : nullptr, caller.bound);
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
