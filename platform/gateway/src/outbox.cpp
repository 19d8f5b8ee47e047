#include "outbox.hpp"

#include <utility>

namespace Tarvik
{

void Outbox::push(std::string text)
{
  bool wake = false;
  {
    const std::lock_guard lock(_mutex);
    if (_closed || _overflowed)
      return;
    const auto bytes = text.size();
    _slots.push_back(std::make_shared<std::string>(std::move(text)));
    wake = account(bytes);
  }
  if (wake)
    _wake();
}

Outbox::Slot Outbox::reserve()
{
  auto slot = std::make_shared<std::string>();
  const std::lock_guard lock(_mutex);
  if (!_closed && !_overflowed)
    _slots.push_back(slot);
  return slot;
}

void Outbox::fill(const Slot& slot, std::string text)
{
  bool wake = false;
  {
    const std::lock_guard lock(_mutex);
    if (_closed || _overflowed)
      return;
    const auto bytes = text.size();
    *slot = std::move(text);
    wake = account(bytes);
  }
  if (wake)
    _wake();
}

bool Outbox::account(std::size_t bytes)
{
  _bytes += bytes;
  if (_slots.size() > _maximumMessages || _bytes > _maximumBytes)
  {
    _overflowed = true;
    _slots.clear();
    _writerWaits = false;
    return true;
  }
  return std::exchange(_writerWaits, false);
}

std::optional<std::string> Outbox::take()
{
  const std::lock_guard lock(_mutex);
  if (_slots.empty())
  {
    _writerWaits = true;
    return std::nullopt;
  }
  auto text = std::move(*_slots.front());
  _slots.pop_front();
  _bytes -= text.size();
  return text;
}

bool Outbox::overflowed() const
{
  const std::lock_guard lock(_mutex);
  return _overflowed;
}

void Outbox::close()
{
  const std::lock_guard lock(_mutex);
  _closed = true;
  _slots.clear();
  _bytes = 0;
}

} // namespace Tarvik
