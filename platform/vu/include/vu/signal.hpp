#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <vu/conversion.hpp>
#include <vu/log.hpp>
#include <vu/value.hpp>

namespace vu
{

/// Names one connection, in one process, for ever: never reused.
using SignalLink = std::uint64_t;

namespace detail
{

SignalLink nextSignalLink();

/// A subscriber's callback that can be ended: once close() has returned, it
/// does not run any more.
template <typename... Arguments> class Subscriber
{
public:
  explicit Subscriber(std::function<void(Arguments...)> callback) : _callback(std::move(callback)) {}

  void run(const Arguments&... arguments)
  {
    {
      const std::lock_guard lock(_mutex);
      if (_closed)
        return;
      _running.push_back(std::this_thread::get_id());
    }
    try
    {
      _callback(arguments...);
    }
    catch (...)
    {
      log::callbackError("a signal's subscriber");
    }
    const std::lock_guard lock(_mutex);
    _running.erase(std::find(_running.begin(), _running.end(), std::this_thread::get_id()));
    _ended.notify_all();
  }

  /// Waits for the callback where it runs on another thread.
  void close()
  {
    std::unique_lock lock(_mutex);
    _closed = true;
    _ended.wait(lock,
                [this]
                {
                  const auto self = std::this_thread::get_id();
                  return std::all_of(_running.begin(), _running.end(), [self](auto id) { return id == self; });
                });
  }

private:
  const std::function<void(Arguments...)> _callback;
  std::mutex _mutex; // guards the members below
  std::condition_variable _ended;
  std::vector<std::thread::id> _running;
  bool _closed = false;
};

/// The subscribers of a signal, apart from the signal itself: a service's
/// object holds them, so that who disconnects late finds something to
/// disconnect from.
class SignalState
{
public:
  SignalState() = default;
  virtual ~SignalState() = default;
  SignalState(const SignalState&) = delete;
  SignalState& operator=(const SignalState&) = delete;

  virtual SignalLink connectValues(std::function<void(const Value& arguments)> callback) = 0;
  virtual void disconnect(SignalLink link) = 0;
};

template <typename... Arguments> class TypedSignalState final : public SignalState
{
public:
  using Entry = std::pair<SignalLink, std::shared_ptr<Subscriber<Arguments...>>>;

  SignalLink connect(std::function<void(Arguments...)> callback)
  {
    auto subscriber = std::make_shared<Subscriber<Arguments...>>(std::move(callback));
    const auto link = nextSignalLink();
    const std::lock_guard lock(_mutex);
    if (!_ended)
      _subscribers.emplace_back(link, std::move(subscriber));
    return link;
  }

  SignalLink connectValues(std::function<void(const Value& arguments)> callback) override
  {
    return connect([callback = std::move(callback)](const Arguments&... arguments) { callback(Value::array({arguments...})); });
  }

  void disconnect(SignalLink link) override
  {
    std::shared_ptr<Subscriber<Arguments...>> subscriber;
    {
      const std::lock_guard lock(_mutex);
      const auto found = std::find_if(_subscribers.begin(), _subscribers.end(), [link](const Entry& entry) { return entry.first == link; });
      if (found == _subscribers.end())
        return;
      subscriber = std::move(found->second);
      _subscribers.erase(found);
    }
    subscriber->close();
  }

  std::vector<Entry> subscribers() const
  {
    const std::lock_guard lock(_mutex);
    return _subscribers;
  }

  /// Lets go of all subscribers; those who come later are not kept.
  void end()
  {
    std::vector<Entry> dropped; // callbacks are destroyed outside the lock
    const std::lock_guard lock(_mutex);
    _ended = true;
    dropped.swap(_subscribers);
  }

private:
  mutable std::mutex _mutex; // guards the members below
  std::vector<Entry> _subscribers;
  bool _ended = false;
};

} // namespace detail

/// What all signals have in common, whatever their arguments.
class SignalBase
{
public:
  /// The link of no connection.
  static constexpr SignalLink invalidSignalLink = ~SignalLink(0);

  /// Receives the arguments as an array.
  using ValuesCallback = std::function<void(const Value& arguments)>;

  SignalBase() = default;
  virtual ~SignalBase() = default;
  SignalBase(const SignalBase&) = delete;
  SignalBase& operator=(const SignalBase&) = delete;

  virtual std::size_t connectionCount() const = 0;
  /// Type names, see typeName().
  virtual std::vector<std::string> argumentTypes() const = 0;
  virtual std::shared_ptr<detail::SignalState> state() const = 0;
};

/// News that a service emits. A callback connected here runs on the emitter's
/// thread, inside the emission, and what it throws is logged; one connected
/// through a vu::Object is queued instead (see vu/object.hpp). When the signal
/// dies, its connections end. Thread-safe.
template <typename... Arguments> class Signal final : public SignalBase
{
public:
  using Callback = std::function<void(Arguments...)>;

  ~Signal() override { _state->end(); }

  SignalLink connect(Callback callback) { return _state->connect(std::move(callback)); }

  /// Once it has returned, the callback does not run any more; where it is
  /// running on another thread, it is waited for. A callback may disconnect
  /// itself. An unknown link is ignored. Not to be called with a lock held
  /// that the callback may want.
  void disconnect(SignalLink link) { _state->disconnect(link); }

  std::size_t connectionCount() const override { return _state->subscribers().size(); }
  std::vector<std::string> argumentTypes() const override { return {typeName<Arguments>()...}; }
  std::shared_ptr<detail::SignalState> state() const override { return _state; }

  /// Emits, in the order of connection.
  void operator()(const Arguments&... arguments)
  {
    for (const auto& [link, subscriber] : _state->subscribers())
      subscriber->run(arguments...);
  }

private:
  const std::shared_ptr<detail::TypedSignalState<Arguments...>> _state = std::make_shared<detail::TypedSignalState<Arguments...>>();
};

} // namespace vu
