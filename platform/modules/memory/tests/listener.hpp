#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <zb/zbmodule.hpp>
#include <zb/zbvalue.hpp>

/// What happened, in order, on whatever thread.
class Journal
{
public:
  void add(std::string entry)
  {
    const std::lock_guard lock(_mutex);
    _entries.push_back(std::move(entry));
    _added.notify_all();
  }

  /// The entries, as soon as there are `count`; those there are after ten seconds.
  std::vector<std::string> wait(std::size_t count)
  {
    std::unique_lock lock(_mutex);
    _added.wait_for(lock, std::chrono::seconds(10), [&] { return _entries.size() >= count; });
    return _entries;
  }

private:
  std::mutex _mutex; // guards _entries
  std::condition_variable _added;
  std::vector<std::string> _entries;
};

/// A module with a bound method "onEvent" that hands on what it is told.
class Listener : public ZB::ZBModule
{
public:
  using Callback = std::function<void(const std::string& key, const ZB::ZBValue& value, const std::string& message)>;

  /// `constructing` runs inside the constructor.
  Listener(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, Callback callback, const std::function<void()>& constructing = {})
      : ZBModule(std::move(broker), name), _callback(std::move(callback))
  {
    functionName("onEvent", name, "Be told of an event");
    bindMethod(this, &Listener::onEvent);
    functionName("onKey", name, "Has too few parameters for an event");
    bindMethod(this, &Listener::onKey);
    functionName("onEventLater", name, "Fails in its future");
    bindMethod(this, &Listener::onEventLater);
    if (constructing)
      constructing();
  }

  void onEvent(const std::string& key, const ZB::ZBValue& value, const std::string& message) { _callback(key, value, message); }
  void onKey(const std::string& key) { _callback(key, {}, {}); }
  vu::Future<void> onEventLater(const std::string& key, const ZB::ZBValue& value, const std::string& message)
  {
    _callback(key, value, message);
    return later.future();
  }

  vu::Promise<void> later;

private:
  const Callback _callback;
};
