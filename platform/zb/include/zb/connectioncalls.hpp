#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

#include <vu/threadpool.hpp>

namespace ZB
{

/// The calls of one connection, so that it holds up no other: how many may be
/// open, and how many occupy or wait for a thread at a time. The others stand
/// in a line of the connection's own. What ends something has a line beside
/// it, so that it waits for nothing but its like; on the pool it is urgent.
///
/// A call whose future is under way occupies no thread, and only counts as
/// open. Thread-safe.
class ConnectionCalls : public std::enable_shared_from_this<ConnectionCalls>
{
public:
  struct Limits
  {
    std::size_t open = 1000;
    std::size_t running = 8;             ///< that occupy or wait for a thread; as many again that end something
    std::size_t bytes = std::size_t(-1); ///< of the requests that have not been carried out, before no more are wanted
  };

  /// `mayBegin` is asked before a call leaves the line, on any thread and under
  /// a lock; what is urgent begins without it.
  explicit ConnectionCalls(Limits limits, std::function<bool()> mayBegin = {});

  /// Counts a call as open; false, and it is not counted, when there are as
  /// many as may be.
  bool enter();
  void leave() { --_open; }
  std::size_t open() const { return _open; }
  const Limits& limits() const { return _limits; }

  struct Turn
  {
    vu::ThreadPool::Task run;                               ///< on the pool
    std::function<void(const std::exception_ptr&)> refused; ///< instead of it, on any thread
    std::size_t bytes = 0;                                  ///< of the request
  };
  void push(const std::shared_ptr<vu::ThreadPool>& pool, Turn turn, bool urgent);

  /// To be called when `mayBegin` may say something else than before.
  void goOn();

  /// Whether the client may send more. When it may not, `room` is called once
  /// when it may, on any thread.
  bool hasRoom(std::function<void()> room);

  /// The connection has ended: what has not begun is refused.
  void close();

private:
  struct Waiting
  {
    std::shared_ptr<vu::ThreadPool> pool;
    Turn turn;
  };
  struct Lane
  {
    std::deque<Waiting> waiting;
    std::size_t running = 0;
  };
  class Place;

  /// One without `run` is refused.
  void start(Waiting next, bool urgent);
  void ended(bool urgent, std::size_t bytes);

  const Limits _limits;
  const std::function<bool()> _mayBegin;
  std::atomic<std::size_t> _open = 0;
  std::mutex _mutex; // guards the members below
  Lane _usual;
  Lane _urgent;
  std::size_t _bytes = 0;
  std::function<void()> _room;
  bool _starting = false; ///< somebody lets calls begin
  bool _closed = false;
};

} // namespace ZB
