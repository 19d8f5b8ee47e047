#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "backlog.hpp"

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
  struct Message
  {
    std::string text;
    bool answer = false;
  };
  using Slot = std::shared_ptr<Message>;

  /// `wake` is called, on the putting thread, when the writer has something to
  /// do after take() had nothing for it. `backlog` may take all that waits
  /// here, as if it overflowed.
  Outbox(std::size_t maximumMessages, std::size_t maximumBytes, const std::shared_ptr<Backlog>& backlog, std::function<void()> wake);
  ~Outbox();
  Outbox(const Outbox&) = delete;
  Outbox& operator=(const Outbox&) = delete;

  void push(std::string text) { push(std::move(text), false); }
  void pushAnswer(std::string text) { push(std::move(text), true); }

  /// A place in the line for a text that is still to be found, so that nothing
  /// that happens meanwhile overtakes it. Both on the writer's thread, with no
  /// take() between them.
  Slot reserve();
  void fill(const Slot& slot, std::string answer);

  /// The next text, when the one before has been sent; none when it is empty,
  /// has overflowed or was closed.
  std::optional<std::string> take();

  /// Of answers that have not been sent.
  std::size_t answerBytes() const { return _answerBytes; }
  /// Of all connections, which this one's is a part of.
  const std::shared_ptr<Backlog::Share>& share() const { return _share; }

  bool overflowed() const;
  void close();

private:
  void push(std::string text, bool answer);
  /// After a text has come in; without the mutex.
  void came(std::size_t bytes, bool wake);
  /// With the mutex held; true when the writer has to be woken.
  bool account(std::size_t bytes);
  void overflow();
  void overflowNow(); ///< with the mutex held

  const std::size_t _maximumMessages;
  const std::size_t _maximumBytes;
  const std::function<void()> _wake;
  mutable std::mutex _mutex; // guards the members below
  std::deque<Slot> _slots;
  std::size_t _bytes = 0;
  struct Sending
  {
    std::size_t bytes = 0;
    bool answer = false;
  };
  std::optional<Sending> _sending; ///< what the writer has taken
  bool _writerWaits = true;
  bool _overflowed = false;
  bool _closed = false;
  std::atomic<std::size_t> _answerBytes = 0;
  std::shared_ptr<Backlog::Share> _share;
};

} // namespace Tarvik
