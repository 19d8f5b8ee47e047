#include <vu/orderedemitter.hpp>

#include <algorithm>
#include <utility>

#include <vu/future.hpp>
#include <vu/log.hpp>

namespace vu
{

namespace
{

thread_local bool insideAnnouncement = false;

} // namespace

OrderedEmitter::Ticket OrderedEmitter::queue(Announcement announcement)
{
  const std::lock_guard lock(_mutex);
  _waiting.push_back(std::move(announcement));
  return ++_queued;
}

void OrderedEmitter::emit(Ticket ticket)
{
  std::unique_lock lock(_mutex);
  while (_done < ticket)
  {
    if (_emitting && insideAnnouncement)
    {
      _owed = std::max(_owed, ticket);
      return;
    }
    if (_emitting)
    {
      _announced.wait(lock);
      continue;
    }
    const auto announcement = std::move(_waiting.front());
    _waiting.pop_front();
    _emitting = true;
    lock.unlock();
    const bool nested = std::exchange(insideAnnouncement, true);
    try
    {
      announcement();
    }
    catch (...)
    {
      vu::log::error("vu", "OrderedEmitter::emit", "an announcement failed: " + vu::errorText(std::current_exception()));
    }
    insideAnnouncement = nested;
    lock.lock();
    _emitting = false;
    ++_done;
    ticket = std::max(ticket, std::exchange(_owed, 0));
    _announced.notify_all();
  }
}

} // namespace vu
