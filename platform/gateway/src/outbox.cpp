#include "outbox.hpp"

#include <utility>

namespace Tarvik
{

namespace
{

/// What a message takes besides its text.
constexpr std::size_t overhead = 128;

} // namespace

Outbox::Outbox(std::size_t maximumMessages, std::size_t maximumBytes, const std::shared_ptr<Backlog>& backlog, std::function<void()> wake)
    : _maximumMessages(maximumMessages), _maximumBytes(maximumBytes), _wake(std::move(wake)), _share(backlog->open([this] { overflow(); }))
{
}

Outbox::~Outbox() { _share->end(); }

void Outbox::push(std::string text, bool answer)
{
  const auto bytes = text.size();
  bool wake = false;
  {
    const std::lock_guard lock(_mutex);
    if (_closed || _overflowed)
      return;
    if (answer)
      _answerBytes += bytes;
    _slots.push_back(std::make_shared<Message>(Message{std::move(text), answer}));
    wake = account(bytes);
  }
  came(bytes, wake);
}

Outbox::Slot Outbox::reserve()
{
  auto slot = std::make_shared<Message>();
  slot->answer = true;
  const std::lock_guard lock(_mutex);
  if (!_closed && !_overflowed)
    _slots.push_back(slot);
  return slot;
}

void Outbox::fill(const Slot& slot, std::string answer)
{
  const auto bytes = answer.size();
  bool wake = false;
  {
    const std::lock_guard lock(_mutex);
    if (_closed || _overflowed)
      return;
    _answerBytes += bytes;
    slot->text = std::move(answer);
    wake = account(bytes);
  }
  came(bytes, wake);
}

void Outbox::came(std::size_t bytes, bool wake)
{
  if (wake)
    _wake();
  _share->add(bytes + overhead);
}

bool Outbox::account(std::size_t bytes)
{
  _bytes += bytes;
  if (_slots.size() > _maximumMessages || _bytes > _maximumBytes)
  {
    overflowNow();
    return true;
  }
  return std::exchange(_writerWaits, false);
}

void Outbox::overflow()
{
  {
    const std::lock_guard lock(_mutex);
    if (_closed || _overflowed)
      return;
    overflowNow();
  }
  _wake();
}

void Outbox::overflowNow()
{
  _overflowed = true;
  _slots.clear();
  _writerWaits = false;
}

std::optional<std::string> Outbox::take()
{
  std::optional<std::string> text;
  std::size_t sent = 0;
  {
    const std::lock_guard lock(_mutex);
    if (_sending)
    {
      sent = _sending->bytes + overhead;
      if (_sending->answer)
        _answerBytes -= _sending->bytes;
      _sending.reset();
    }
    if (_slots.empty())
      _writerWaits = true;
    else
    {
      _sending = Sending{_slots.front()->text.size(), _slots.front()->answer};
      text = std::move(_slots.front()->text);
      _slots.pop_front();
      _bytes -= text->size();
    }
  }
  _share->remove(sent);
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
