#include <vu/localobject.hpp>

#include <vu/error.hpp>

namespace vu
{

LocalObject::LocalObject(std::string name, std::shared_ptr<ThreadPool> pool) : _pool(std::move(pool))
{
  _description.name = std::move(name);
}

ObjectDescription LocalObject::description()
{
  const std::lock_guard lock(_mutex);
  return _description;
}

Future<Value> LocalObject::call(const std::string& method, const Value& arguments)
{
  try
  {
    const auto pass = _gate.enter();
    if (!pass)
      throw unknownService(name(), method, " any more");
    Invoke invoke;
    std::size_t wanted = 0;
    {
      const std::lock_guard lock(_mutex);
      const auto found = _methods.find(method);
      if (found == _methods.end())
        throw ServiceError(name(), method, "the service " + name() + " has no method " + method, ServiceError::Kind::UnknownMethod);
      invoke = found->second;
      wanted = _description.method(method)->parameters.size();
    }
    if (!arguments.is_array() || arguments.size() != wanted)
      throw ServiceError(name(), method,
                         name() + "." + method + " takes " + std::to_string(wanted) + (wanted == 1 ? " argument, " : " arguments, ") +
                             std::to_string(arguments.size()) + " given",
                         ServiceError::Kind::InvalidArguments);
    auto result = invoke(arguments);
    if (auto* future = std::get_if<Future<Value>>(&result))
      return *future;
    return makeReadyFuture<Value>(std::get<Value>(result), _pool);
  }
  catch (const ArgumentError& error)
  {
    return makeFailedFuture<Value>(std::make_exception_ptr(ServiceError(name(), method, name() + "." + method + ": " + error.what(),
                                                                        ServiceError::Kind::InvalidArguments)),
                                   _pool);
  }
  catch (...)
  {
    return makeFailedFuture<Value>(std::current_exception(), _pool);
  }
}

Role LocalObject::leastRole(const std::string& method) const
{
  const std::lock_guard lock(_mutex);
  const auto* const known = _description.method(method);
  return known ? known->leastRole() : leastRoleByName(method);
}

bool LocalObject::givesFuture(const std::string& method) const
{
  const std::lock_guard lock(_mutex);
  const auto* const known = _description.method(method);
  return known && known->future;
}

bool LocalObject::isUrgent(const std::string& method) const
{
  const std::lock_guard lock(_mutex);
  const auto* const known = _description.method(method);
  return known && known->isUrgent();
}

Future<Value> LocalObject::post(const std::string& method, Value arguments) { return post(method, std::move(arguments), {}); }

Future<Value> LocalObject::post(const std::string& method, Value arguments, std::function<bool()> wanted)
{
  const Promise<Value> promise(_pool);
  try
  {
    _pool->postCall(
        [self = shared_from_this(), method, arguments = std::move(arguments), promise, wanted = std::move(wanted)]
        {
          if (!wanted || wanted())
            self->call(method, arguments).forward(promise, [](const Value& value) { return value; });
        });
  }
  catch (const ServiceError& error) // the pool cannot know for whom it refuses
  {
    throw ServiceError(name(), method, error.description(), error.kind());
  }
  return promise.future();
}

Future<SignalLink> LocalObject::connect(const std::string& signal, SignalBase::ValuesCallback callback)
{
  std::shared_ptr<detail::SignalState> state;
  if (const auto pass = _gate.enter())
  {
    const std::lock_guard lock(_mutex);
    if (const auto found = _signals.find(signal); found != _signals.end())
      state = found->second;
  }
  else
    return makeFailedFuture<SignalLink>(std::make_exception_ptr(unknownService(name(), signal, " any more")), _pool);
  if (!state)
    return makeFailedFuture<SignalLink>(
        std::make_exception_ptr(
            ServiceError(name(), signal, "the service " + name() + " has no signal " + signal, ServiceError::Kind::UnknownMethod)),
        _pool);
  const auto link = state->connectValues(std::move(callback));
  const std::lock_guard lock(_mutex);
  _links.emplace(link, std::move(state));
  return makeReadyFuture<SignalLink>(link, _pool);
}

void LocalObject::disconnect(SignalLink link)
{
  std::shared_ptr<detail::SignalState> state;
  {
    const std::lock_guard lock(_mutex);
    const auto found = _links.find(link);
    if (found == _links.end())
      return;
    state = std::move(found->second);
    _links.erase(found);
  }
  state->disconnect(link);
}

void LocalObject::end() { _gate.closeAndDrain(); }

} // namespace vu
