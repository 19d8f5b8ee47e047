#include <zb/connectioncalls.hpp>

#include <utility>

#include <vu/error.hpp>

namespace ZB
{

/// Of a call on the pool, given back when the pool lets go of the call,
/// whatever becomes of it.
class ConnectionCalls::Place
{
public:
  Place(std::shared_ptr<ConnectionCalls> calls, bool urgent, std::size_t bytes) : _calls(std::move(calls)), _urgent(urgent), _bytes(bytes)
  {
  }
  ~Place() { _calls->ended(_urgent, _bytes); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

private:
  const std::shared_ptr<ConnectionCalls> _calls;
  const bool _urgent;
  const std::size_t _bytes;
};

ConnectionCalls::ConnectionCalls(Limits limits, std::function<bool()> mayBegin) : _limits(limits), _mayBegin(std::move(mayBegin)) {}

bool ConnectionCalls::enter()
{
  if (_open++ < _limits.open)
    return true;
  --_open;
  return false;
}

void ConnectionCalls::push(const std::shared_ptr<vu::ThreadPool>& pool, Turn turn, bool urgent)
{
  {
    const std::lock_guard lock(_mutex);
    _bytes += turn.bytes;
    (urgent ? _urgent : _usual).waiting.push_back({pool, std::move(turn)});
  }
  goOn();
}

void ConnectionCalls::goOn()
{
  for (bool first = true;; first = false)
  {
    Waiting next;
    bool urgent = false;
    {
      const std::lock_guard lock(_mutex);
      // Whoever starts them looks again after each, and so sees what has just
      // changed: a call that ends inside its start does not nest another.
      if (first && std::exchange(_starting, true))
        return;
      const auto mayLeave = [this](const Lane& lane) { return !lane.waiting.empty() && (lane.running < _limits.running || _closed); };
      urgent = mayLeave(_urgent);
      if (!urgent && !(mayLeave(_usual) && (_closed || !_mayBegin || _mayBegin())))
      {
        _starting = false;
        return;
      }
      auto& lane = urgent ? _urgent : _usual;
      next = std::move(lane.waiting.front());
      lane.waiting.pop_front();
      ++lane.running;
      if (_closed)
        next.turn.run = nullptr;
    }
    start(std::move(next), urgent);
  }
}

void ConnectionCalls::start(Waiting next, bool urgent)
{
  auto place = std::make_shared<Place>(shared_from_this(), urgent, next.turn.bytes);
  if (!next.turn.run)
    return next.turn.refused(std::make_exception_ptr(
        vu::ServiceError({}, {}, "the connection ended before the call began", vu::ServiceError::Kind::ConnectionLost)));
  auto task = [run = std::move(next.turn.run), place = std::move(place)]() mutable
  {
    run();
    run = nullptr; // what the request holds goes before its place does
    place.reset();
  };
  if (urgent)
    return next.pool->postUrgent(std::move(task));
  try
  {
    next.pool->postCall(std::move(task));
  }
  catch (const vu::ServiceError&) // the pool is overloaded
  {
    next.turn.refused(std::current_exception());
  }
}

void ConnectionCalls::ended(bool urgent, std::size_t bytes)
{
  std::function<void()> room;
  {
    const std::lock_guard lock(_mutex);
    --(urgent ? _urgent : _usual).running;
    _bytes -= bytes;
    if (_bytes <= _limits.bytes)
      room = std::exchange(_room, nullptr);
  }
  if (room)
    room();
  goOn();
}

bool ConnectionCalls::hasRoom(std::function<void()> room)
{
  const std::lock_guard lock(_mutex);
  if (_bytes <= _limits.bytes)
    return true;
  _room = std::move(room);
  return false;
}

void ConnectionCalls::close()
{
  {
    const std::lock_guard lock(_mutex);
    _closed = true;
    _room = nullptr;
  }
  goOn();
}

} // namespace ZB
