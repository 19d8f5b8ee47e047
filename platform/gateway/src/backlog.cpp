#include "backlog.hpp"

namespace Tarvik
{

Backlog::Share::Share(std::shared_ptr<Backlog> backlog, std::function<void()> drop) : _backlog(std::move(backlog)), _drop(std::move(drop))
{
  const std::lock_guard lock(_backlog->_mutex);
  _backlog->_shares.insert(this);
}

Backlog::Share::~Share()
{
  end();
  // With what came or went while it was dropped.
  _backlog->_bytes -= _bytes;
}

void Backlog::Share::add(std::size_t bytes)
{
  if (_dropped)
    return;
  const auto more = static_cast<std::int64_t>(bytes);
  _bytes += more;
  if ((_backlog->_bytes += more) > _backlog->_maximum)
    _backlog->relieve();
}

void Backlog::Share::remove(std::size_t bytes)
{
  if (_dropped)
    return;
  const auto less = static_cast<std::int64_t>(bytes);
  _bytes -= less;
  _backlog->_bytes -= less;
}

void Backlog::Share::end()
{
  const std::lock_guard lock(_backlog->_mutex);
  _backlog->_shares.erase(this);
}

void Backlog::relieve()
{
  const std::lock_guard lock(_mutex);
  while (_bytes > _maximum && !_shares.empty())
  {
    auto* const most =
        *std::max_element(_shares.begin(), _shares.end(), [](const Share* a, const Share* b) { return a->_bytes < b->_bytes; });
    most->_dropped = true;
    _shares.erase(most);
    _bytes -= most->_bytes.exchange(0);
    ++_drops;
    most->_drop();
  }
}

} // namespace Tarvik
