#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/threadpool.hpp>

namespace vu
{

template <typename T> class Promise;

namespace detail
{

template <typename T> using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

/// What the handles of one future and its promise share.
template <typename T> class FutureState
{
public:
  using Result = std::variant<std::monostate, Stored<T>, std::exception_ptr>;
  using Callback = std::function<void()>;

  explicit FutureState(std::shared_ptr<ThreadPool> pool) : _pool(std::move(pool)) {}

  /// False when there was a result already, which then stays. Index 1 is a
  /// value, 2 an error.
  template <std::size_t index, typename V> bool complete(V&& value)
  {
    std::vector<Callback> callbacks;
    {
      const std::lock_guard lock(_mutex);
      if (_result.index() != 0)
        return false;
      _result.template emplace<index>(std::forward<V>(value));
      callbacks.swap(_callbacks);
      _completed.notify_all();
    }
    for (auto& callback : callbacks)
      callback();
    return true;
  }

  bool wait(std::optional<std::chrono::milliseconds> limit) const
  {
    std::unique_lock lock(_mutex);
    const auto done = [this] { return _result.index() != 0; };
    if (limit)
      return _completed.wait_for(lock, *limit, done);
    _completed.wait(lock, done);
    return true;
  }

  /// Only after wait() has returned true; the result does not change any more.
  const Result& result() const { return _result; }

  /// Runs inside the completing call, or at once. For the middleware's own
  /// links between futures, which must not run foreign code here.
  void whenComplete(Callback callback)
  {
    {
      const std::lock_guard lock(_mutex);
      if (_result.index() == 0)
      {
        _callbacks.push_back(std::move(callback));
        return;
      }
    }
    callback();
  }

  const std::shared_ptr<ThreadPool>& pool() const { return _pool; }

private:
  const std::shared_ptr<ThreadPool> _pool;
  mutable std::mutex _mutex; // guards the members below
  mutable std::condition_variable _completed;
  Result _result;
  std::vector<Callback> _callbacks;
};

} // namespace detail

/// A result that comes later: a shared handle, cheap to copy. Thread-safe.
template <typename T> class Future
{
public:
  /// A handle on nothing: only assignment and valid() are allowed.
  Future() = default;

  bool valid() const { return _state != nullptr; }

  /// Blocks until there is a result, or the limit has passed; true with a result.
  bool wait(std::optional<std::chrono::milliseconds> limit = std::nullopt) const { return _state->wait(limit); }
  bool isFinished() const { return wait(std::chrono::milliseconds(0)); }

  /// Wait, without a limit, and tell which kind of result came.
  bool hasValue() const { return !hasError(); }
  bool hasError() const
  {
    wait();
    return _state->result().index() == 2;
  }

  /// Waits, then gives the value or throws the error as it was set.
  T value() const
  {
    wait();
    if (_state->result().index() == 2)
      std::rethrow_exception(std::get<2>(_state->result()));
    if constexpr (!std::is_void_v<T>)
      return std::get<1>(_state->result());
  }

  /// Waits, then gives the error's text, empty where there is a value.
  std::string error() const { return hasError() ? errorText(exception()) : std::string(); }

  /// Waits, then gives the error, null where there is a value.
  std::exception_ptr exception() const { return hasError() ? std::get<2>(_state->result()) : nullptr; }

  /// Attaches a continuation. It runs once, on the promise's pool, when there
  /// is a result: never inside this call, nor inside the one that completes
  /// the promise. It holds no future open and is not tied to anyone's life. It
  /// works on behalf of the caller who attached it.
  void then(std::function<void(Future<T>)> continuation) const
  {
    auto pool = _state->pool();
    auto task = [self = *this, caller = currentCaller(), continuation = std::move(continuation)]
    {
      const CallerScope scope(caller);
      continuation(self);
    };
    _state->whenComplete([pool, task = std::move(task)] { pool->post(task); });
  }

  /// Completes `promise` with this future's result turned by `convert`, inside
  /// the completing call: for conversions, which do nothing else. What
  /// `convert` throws becomes the error.
  template <typename U, typename Convert> void forward(Promise<U> promise, Convert convert) const;

private:
  friend class Promise<T>;
  explicit Future(std::shared_ptr<detail::FutureState<T>> state) : _state(std::move(state)) {}

  std::shared_ptr<detail::FutureState<T>> _state;
};

/// The other end of a future: a shared handle. When the last one dies without
/// a result, the future fails, so that nobody waits for ever. The first result
/// stays; a setter that comes later returns false and changes nothing. Thread-safe.
template <typename T> class Promise
{
public:
  /// Continuations of the future run on `pool`, by default the process's.
  explicit Promise(std::shared_ptr<ThreadPool> pool = ThreadPool::process())
      : _guard(std::make_shared<Guard>(std::make_shared<detail::FutureState<T>>(std::move(pool))))
  {
  }

  Future<T> future() const { return Future<T>(_guard->state); }

  bool setValue(const detail::Stored<T>& value = {}) const { return _guard->state->template complete<1>(value); }
  bool setError(const std::string& text) const { return setException(std::make_exception_ptr(std::runtime_error(text))); }
  bool setException(std::exception_ptr error) const { return _guard->state->template complete<2>(std::move(error)); }

private:
  struct Guard
  {
    explicit Guard(std::shared_ptr<detail::FutureState<T>> state) : state(std::move(state)) {}
    ~Guard() { state->template complete<2>(std::make_exception_ptr(std::runtime_error("the promise was given up without a result"))); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    const std::shared_ptr<detail::FutureState<T>> state;
  };

  std::shared_ptr<Guard> _guard;
};

template <typename T> template <typename U, typename Convert> void Future<T>::forward(Promise<U> promise, Convert convert) const
{
  _state->whenComplete(
      [self = *this, promise, convert]
      {
        try
        {
          if constexpr (std::is_void_v<T> && std::is_void_v<U>)
          {
            self.value();
            convert();
            promise.setValue();
          }
          else if constexpr (std::is_void_v<T>)
          {
            self.value();
            promise.setValue(convert());
          }
          else if constexpr (std::is_void_v<U>)
          {
            convert(self.value());
            promise.setValue();
          }
          else
            promise.setValue(convert(self.value()));
        }
        catch (...)
        {
          promise.setException(std::current_exception());
        }
      });
}

/// A future that has its result already.
template <typename T>
Future<T> makeReadyFuture(const detail::Stored<T>& value = {}, std::shared_ptr<ThreadPool> pool = ThreadPool::process())
{
  const Promise<T> promise(std::move(pool));
  promise.setValue(value);
  return promise.future();
}

template <typename T> Future<T> makeFailedFuture(std::exception_ptr error, std::shared_ptr<ThreadPool> pool = ThreadPool::process())
{
  const Promise<T> promise(std::move(pool));
  promise.setException(std::move(error));
  return promise.future();
}

} // namespace vu
