#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>

namespace vu
{

/// Lets work into something that will end one day.
///
/// Work that comes late (a callback, a posted call, a continuation) asks for a
/// pass and goes on only with one; the owner closes the gate before it
/// destroys what the work uses. Whoever may outlive the owner holds the gate
/// by a shared pointer. Thread-safe.
class Gate
{
public:
  class Pass
  {
  public:
    Pass() = default;
    Pass(Pass&& other) noexcept : _gate(std::exchange(other._gate, nullptr)) {}
    Pass& operator=(Pass&& other) noexcept
    {
      std::swap(_gate, other._gate);
      return *this;
    }
    ~Pass()
    {
      if (_gate)
        _gate->leave();
    }
    explicit operator bool() const noexcept { return _gate != nullptr; }

  private:
    friend class Gate;
    explicit Pass(Gate* gate) : _gate(gate) {}
    Gate* _gate = nullptr;
  };

  /// An empty pass once the gate is closed.
  Pass enter()
  {
    const std::lock_guard lock(_mutex);
    if (_closed)
      return {};
    ++_inside;
    return Pass(this);
  }

  /// Refuses all further passes and waits until those given out are back. Not
  /// to be called by a holder of a pass, which would wait for itself, nor with
  /// a lock held that a holder may want.
  void closeAndDrain()
  {
    std::unique_lock lock(_mutex);
    _closed = true;
    _empty.wait(lock, [this] { return _inside == 0; });
  }

private:
  void leave()
  {
    const std::lock_guard lock(_mutex);
    if (--_inside == 0)
      _empty.notify_all();
  }

  std::mutex _mutex; // guards both members below
  std::condition_variable _empty;
  std::size_t _inside = 0;
  bool _closed = false;
};

} // namespace vu
