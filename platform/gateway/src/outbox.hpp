#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Tarvik
{

/// What waits to be sent to one WebSocket: answers and notifications, in the
/// order in which they came about. Emitters put texts in from any thread and
/// never wait; one writer takes them out. When a client does not keep up, the
/// outbox overflows: it lets go of all it holds and takes nothing any more.
/// Thread-safe.
class Outbox
{
public:
  using Slot = std::shared_ptr<std::string>;

  /// `wake` is called, on the putting thread and without a lock, when the
  /// writer has something to do after take() had nothing for it.
  Outbox(std::size_t maximumMessages, std::size_t maximumBytes, std::function<void()> wake)
      : _maximumMessages(maximumMessages), _maximumBytes(maximumBytes), _wake(std::move(wake))
  {
  }

  void push(std::string text);

  /// A place in the line for a text that is still to be found, so that nothing
  /// that happens meanwhile overtakes it. Both on the writer's thread, with no
  /// take() between them.
  Slot reserve();
  void fill(const Slot& slot, std::string text);

  /// The next text; none when it is empty, has overflowed or was closed.
  std::optional<std::string> take();

  bool overflowed() const;
  void close();

private:
  /// With the mutex held; true when the writer has to be woken.
  bool account(std::size_t bytes);

  const std::size_t _maximumMessages;
  const std::size_t _maximumBytes;
  const std::function<void()> _wake;
  mutable std::mutex _mutex; // guards the members below
  std::deque<Slot> _slots;
  std::size_t _bytes = 0;
  bool _writerWaits = true;
  bool _overflowed = false;
  bool _closed = false;
};

} // namespace Tarvik
