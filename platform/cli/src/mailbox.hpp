#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace Tarvik
{

/// Brings what happens on the session's threads to the main thread, which
/// alone writes. Callbacks hold it by a shared pointer, since one may come
/// after the command has ended. Thread-safe.
template <typename T> class Mailbox
{
public:
  using Clock = std::chrono::steady_clock;

  void put(T letter)
  {
    const std::lock_guard lock(_mutex);
    _letters.push_back(std::move(letter));
    _arrived.notify_one();
  }

  /// The oldest letter; waits for one, until `deadline` where there is one,
  /// and gives none when that has passed.
  std::optional<T> take(std::optional<Clock::time_point> deadline = std::nullopt)
  {
    std::unique_lock lock(_mutex);
    const auto present = [this] { return !_letters.empty(); };
    if (deadline)
      _arrived.wait_until(lock, *deadline, present);
    else
      _arrived.wait(lock, present);
    if (_letters.empty())
      return std::nullopt;
    auto letter = std::move(_letters.front());
    _letters.pop_front();
    return letter;
  }

private:
  std::mutex _mutex; // guards _letters
  std::condition_variable _arrived;
  std::deque<T> _letters;
};

} // namespace Tarvik
