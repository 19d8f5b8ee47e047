#include <vu/session.hpp>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include <vu/error.hpp>

namespace vu
{

namespace
{

std::exception_ptr notFound(const std::string& name, const std::string& detail = {})
{
  return std::make_exception_ptr(unknownService(name, {}, detail));
}

} // namespace

struct LocalSession::Implementation
{
  struct Waiter
  {
    std::string name;
    Promise<Object> promise;
    bool whileReserved; // gives up as soon as the name is not reserved
  };

  explicit Implementation(std::shared_ptr<ThreadPool> wanted) : pool(std::move(wanted)) {}

  // mutex held
  void refuseTaken(const std::string& name) const
  {
    if (services.count(name) != 0)
      throw ServiceError(name, {}, "there is a service " + name + " already");
  }

  /// Takes out those who wait for `name`; mutex held.
  std::vector<Promise<Object>> take(const std::string& name, bool onlyWhileReserved)
  {
    std::vector<Promise<Object>> taken;
    for (auto waiter = waiters.begin(); waiter != waiters.end();)
      if (waiter->second.name == name && (waiter->second.whileReserved || !onlyWhileReserved))
      {
        taken.push_back(waiter->second.promise);
        waiter = waiters.erase(waiter);
      }
      else
        ++waiter;
    return taken;
  }

  const std::shared_ptr<ThreadPool> pool;
  mutable std::mutex mutex; // guards the members below
  /// A reserved name has no object yet.
  std::map<std::string, std::shared_ptr<LocalObject>> services;
  std::map<std::uint64_t, Waiter> waiters;
  std::uint64_t lastWaiter = 0;
  bool closed = false;
};

LocalSession::LocalSession(std::shared_ptr<ThreadPool> pool) : _implementation(std::make_shared<Implementation>(std::move(pool))) {}

LocalSession::~LocalSession() { close(); }

std::vector<std::string> LocalSession::services() const
{
  const std::lock_guard lock(_implementation->mutex);
  std::vector<std::string> names;
  for (const auto& [name, object] : _implementation->services)
    if (object)
      names.push_back(name);
  return names;
}

Future<Object> LocalSession::service(const std::string& name, const std::string&, int timeoutMs)
{
  const Promise<Object> promise(_implementation->pool);
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(_implementation->mutex);
    if (const auto found = _implementation->services.find(name); found != _implementation->services.end() && found->second)
    {
      promise.setValue(Object(found->second));
      return promise.future();
    }
    if (_implementation->closed || timeoutMs == 0)
    {
      promise.setException(notFound(name));
      return promise.future();
    }
    number = ++_implementation->lastWaiter;
    _implementation->waiters.emplace(number, Implementation::Waiter{name, promise, false});
  }
  if (timeoutMs > 0)
    _implementation->pool->postAfter(std::chrono::milliseconds(timeoutMs),
                                     [weak = std::weak_ptr<Implementation>(_implementation), number, name, timeoutMs]
                                     {
                                       std::optional<Promise<Object>> late;
                                       if (const auto session = weak.lock())
                                       {
                                         const std::lock_guard lock(session->mutex);
                                         if (const auto found = session->waiters.find(number); found != session->waiters.end())
                                         {
                                           late = found->second.promise;
                                           session->waiters.erase(found);
                                         }
                                       }
                                       if (late)
                                         late->setException(notFound(name, " after " + std::to_string(timeoutMs) + " ms"));
                                     });
  return promise.future();
}

void LocalSession::reserve(const std::string& name)
{
  const std::lock_guard lock(_implementation->mutex);
  _implementation->refuseTaken(name);
  _implementation->services.emplace(name, nullptr);
}

bool LocalSession::isReserved(const std::string& name) const
{
  const std::lock_guard lock(_implementation->mutex);
  const auto found = _implementation->services.find(name);
  return found != _implementation->services.end() && !found->second;
}

void LocalSession::publish(const std::shared_ptr<LocalObject>& object)
{
  std::vector<Promise<Object>> waiting;
  {
    const std::lock_guard lock(_implementation->mutex);
    auto& entry = _implementation->services[object->name()];
    if (entry)
      _implementation->refuseTaken(object->name());
    entry = object;
    waiting = _implementation->take(object->name(), false);
  }
  for (const auto& promise : waiting)
    promise.setValue(Object(object));
}

void LocalSession::withdraw(const std::string& name)
{
  std::shared_ptr<LocalObject> object;
  std::vector<Promise<Object>> waiting;
  {
    const std::lock_guard lock(_implementation->mutex);
    const auto found = _implementation->services.find(name);
    if (found == _implementation->services.end())
      return;
    object = std::move(found->second);
    _implementation->services.erase(found);
    waiting = _implementation->take(name, true);
  }
  for (const auto& promise : waiting)
    promise.setException(std::make_exception_ptr(
        ServiceError(name, {}, "the service " + name + " could not be constructed", ServiceError::Kind::UnknownService)));
  if (object)
    object->end();
}

std::shared_ptr<LocalObject> LocalSession::find(const std::string& name) const
{
  const std::lock_guard lock(_implementation->mutex);
  const auto found = _implementation->services.find(name);
  return found == _implementation->services.end() ? nullptr : found->second;
}

std::shared_ptr<LocalObject> LocalSession::require(const std::string& name, const std::string& method) const
{
  auto object = find(name);
  if (!object)
    throw unknownService(name, method);
  return object;
}

Future<Object> LocalSession::whenConstructed(const std::string& name)
{
  const Promise<Object> promise(_implementation->pool);
  const std::lock_guard lock(_implementation->mutex);
  const auto found = _implementation->services.find(name);
  if (_implementation->closed || found == _implementation->services.end())
    promise.setException(notFound(name));
  else if (found->second)
    promise.setValue(Object(found->second));
  else
    _implementation->waiters.emplace(++_implementation->lastWaiter, Implementation::Waiter{name, promise, true});
  return promise.future();
}

void LocalSession::close()
{
  std::map<std::uint64_t, Implementation::Waiter> waiters;
  {
    const std::lock_guard lock(_implementation->mutex);
    _implementation->closed = true;
    waiters.swap(_implementation->waiters);
  }
  for (const auto& [number, waiter] : waiters)
    waiter.promise.setException(notFound(waiter.name, ": the host is shutting down"));
}

} // namespace vu
