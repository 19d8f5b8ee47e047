#include <zbmemory.hpp>

#include <utility>

#include <vu/text.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

using vu::inQuotes;

ZBMemory::ZBMemory(std::shared_ptr<ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name) { bindMethods(); }

ZBMemory::~ZBMemory() = default;

void ZBMemory::bindMethods()
{
  setModuleDescription("Keeps the platform's data and tells its events to those who subscribed to them");

  functionName("declareEvent", getName(), "Declare an event, which may be raised from then on; declaring it again is no error");
  addParam("key", "name of the event");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBMemory::declareEvent);

  functionName("raiseEvent", getName(), "Raise a declared event and keep its value as data");
  addParam("key", "name of the event");
  addParam("value", "any value");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBMemory::raiseEvent);

  functionName("raiseMicroEvent", getName(), "Raise a declared event without keeping its value");
  addParam("key", "name of the event");
  addParam("value", "any value");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBMemory::raiseMicroEvent);

  functionName("getEventList", getName(), "Get the names of the declared events");
  setReturn("keys", "names, sorted");
  bindMethod(this, &ZBMemory::getEventList);

  functionName("insertData", getName(), "Keep a value under a key, in the place of the one that was there; tells nobody");
  addParam("key", "name of the data");
  addParam("value", "any value");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBMemory::insertData);

  functionName("getData", getName(), "Get the value under a key");
  addParam("key", "name of the data");
  setReturn("value", "the value");
  bindMethod(this, &ZBMemory::getData);

  functionName("removeData", getName(), "Remove the value under a key");
  addParam("key", "name of the data");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBMemory::removeData);

  functionName("getDataListName", getName(), "Get the keys of all data");
  setReturn("keys", "names, sorted");
  bindMethod(this, &ZBMemory::getDataListName);

  const auto describeSubscription = [this](const char* name)
  {
    functionName(
        name, getName(),
        "Have a module told every time an event or micro-event is raised, by a call of its method with key, value and message; replaces an "
        "earlier subscription of the same key and module");
    addParam("key", "name of the event, declared already or not");
    addParam("module", "name of the subscribing module");
    addParam("message", "text that the module gets back with every event");
    addParam("method", "name of a method of the module that takes key, value and message");
    setAccess(vu::Role::Admin);
  };
  describeSubscription("subscribeToEvent");
  bindMethod(this, &ZBMemory::subscribeToEvent);
  describeSubscription("subscribeToMicroEvent");
  bindMethod(this, &ZBMemory::subscribeToMicroEvent);

  const auto describeUnsubscription = [this](const char* name)
  {
    functionName(name, getName(), "End a module's subscription to an event, whichever way it was made");
    addParam("key", "name of the event");
    addParam("module", "name of the subscribing module");
    setAccess(vu::Role::Admin);
  };
  describeUnsubscription("unsubscribeToEvent");
  bindMethod(this, &ZBMemory::unsubscribeToEvent);
  describeUnsubscription("unsubscribeToMicroEvent");
  bindMethod(this, &ZBMemory::unsubscribeToMicroEvent);

  advertiseSignal("eventRaised", eventRaised);
}

void ZBMemory::declareEvent(const std::string& key)
{
  if (key.empty())
    throw ZBError(getName(), "declareEvent", "an event needs a name: the key is empty");
  const std::lock_guard lock(_mutex);
  _events.insert(key);
}

void ZBMemory::raiseEvent(const std::string& key, const vu::Value& value) { raise("raiseEvent", key, value, true); }

void ZBMemory::raiseMicroEvent(const std::string& key, const vu::Value& value) { raise("raiseMicroEvent", key, value, false); }

void ZBMemory::raise(const char* method, const std::string& key, const vu::Value& value, bool keep)
{
  const auto shared = std::make_shared<const vu::Value>(value);
  vu::OrderedEmitter::Ticket ticket;
  {
    const std::lock_guard lock(_mutex);
    if (!_events.contains(key))
      throw ZBError(getName(), method, "the event " + inQuotes(key) + " has not been declared; call declareEvent before it is raised");
    if (keep)
      _data[key] = value;
    // The lines only take the delivery in here; they run it on the pool.
    if (const auto found = _subscribers.find(key); found != _subscribers.end())
      for (const auto& [module, subscriber] : found->second)
        subscriber.line->push(subscriber.subscription, shared);
    ticket = _emitter.queue([this, key, shared] { eventRaised(key, *shared); });
  }
  _emitter.emit(ticket);
}

std::vector<std::string> ZBMemory::getEventList()
{
  const std::lock_guard lock(_mutex);
  return {_events.begin(), _events.end()};
}

void ZBMemory::insertData(const std::string& key, const vu::Value& value)
{
  if (key.empty())
    throw ZBError(getName(), "insertData", "data needs a name: the key is empty");
  const std::lock_guard lock(_mutex);
  _data[key] = value;
}

vu::Value ZBMemory::getData(const std::string& key)
{
  const std::lock_guard lock(_mutex);
  const auto found = _data.find(key);
  if (found == _data.end())
    throw ZBError(getName(), "getData", "there is no data " + inQuotes(key));
  return found->second;
}

void ZBMemory::removeData(const std::string& key)
{
  const std::lock_guard lock(_mutex);
  if (_data.erase(key) == 0)
    throw ZBError(getName(), "removeData", "there is no data " + inQuotes(key));
}

std::vector<std::string> ZBMemory::getDataListName()
{
  std::vector<std::string> keys;
  const std::lock_guard lock(_mutex);
  for (const auto& [key, value] : _data)
    keys.push_back(key);
  return keys;
}

void ZBMemory::subscribeToEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method)
{
  subscribe("subscribeToEvent", key, module, message, method);
}

void ZBMemory::subscribeToMicroEvent(const std::string& key, const std::string& module, const std::string& message,
                                     const std::string& method)
{
  subscribe("subscribeToMicroEvent", key, module, message, method);
}

void ZBMemory::subscribe(const char* method, const std::string& key, const std::string& module, const std::string& message,
                         const std::string& callback)
{
  if (key.empty() || module.empty() || callback.empty())
    throw ZBError(getName(), method,
                  "a subscription needs a key, a module and a method; got the key " + inQuotes(key) + ", the module " + inQuotes(module) +
                      " and the method " + inQuotes(callback));
  std::shared_ptr<Subscription> subscription(new Subscription{key, module, message, callback});
  const std::lock_guard lock(_mutex);
  _subscribers[key][module] = {std::move(subscription), lineOf(module)};
}

std::shared_ptr<SubscriberLine> ZBMemory::lineOf(const std::string& module)
{
  if (auto line = _lines[module].lock())
    return line;
  std::erase_if(_lines, [](const auto& entry) { return entry.second.expired(); });
  auto line = std::make_shared<SubscriberLine>(module, getParentBroker()->session(), getParentBroker()->pool());
  _lines[module] = line;
  return line;
}

void ZBMemory::unsubscribeToEvent(const std::string& key, const std::string& module) { unsubscribe(key, module); }

void ZBMemory::unsubscribeToMicroEvent(const std::string& key, const std::string& module) { unsubscribe(key, module); }

void ZBMemory::unsubscribe(const std::string& key, const std::string& module)
{
  const std::lock_guard lock(_mutex);
  const auto subscribers = _subscribers.find(key);
  if (subscribers == _subscribers.end())
    return;
  if (const auto found = subscribers->second.find(module); found != subscribers->second.end())
  {
    found->second.subscription->ended = true;
    subscribers->second.erase(found);
  }
  if (subscribers->second.empty())
    _subscribers.erase(subscribers);
}

} // namespace ZB
