#include <common/orderedemitter.hpp>

#include <algorithm>
#include <utility>

#include <vu/future.hpp>
#include <vu/log.hpp>

namespace common
{

OrderedEmitter::Ticket OrderedEmitter::queue(Announcement announcement)
{
  const std::lock_guard lock(_mutex);
  _waiting.push_back(std::move(announcement));
  return ++_queued;
}

void OrderedEmitter::emit(Ticket ticket)
{
  std::unique_lock lock(_mutex);
  if (_emitter == std::this_thread::get_id())
  {
    _owed = std::max(_owed, ticket);
    return;
  }
  while (_done < ticket)
  {
    if (_emitter != std::thread::id())
    {
      _announced.wait(lock);
      continue;
    }
    const auto announcement = std::move(_waiting.front());
    _waiting.pop_front();
    _emitter = std::this_thread::get_id();
    lock.unlock();
    try
    {
      announcement();
    }
    catch (...)
    {
      vu::log::error("modules", "OrderedEmitter::emit", "an announcement failed: " + vu::errorText(std::current_exception()));
    }
    lock.lock();
    _emitter = std::thread::id();
    ++_done;
    ticket = std::max(ticket, std::exchange(_owed, 0));
    _announced.notify_all();
  }
}

} // namespace common
