#include <vu/line.hpp>

#include <utility>
#include <vector>

#include <vu/caller.hpp>
#include <vu/log.hpp>

namespace vu
{

namespace
{
constexpr int deliveriesPerTurn = 64;

struct LongLines
{
  std::mutex mutex; // guards lines; taken before a line's own
  std::vector<std::weak_ptr<Line>> lines;
};

LongLines& longLines()
{
  static auto* const all = new LongLines; // never destroyed: lines may grow late
  return *all;
}
} // namespace

std::shared_ptr<Line> Line::create(std::shared_ptr<ThreadPool> pool, std::string name)
{
  return std::shared_ptr<Line>(new Line(std::move(pool), std::move(name)));
}

void Line::push(ThreadPool::Task task) { push(std::move(task), Wait()); }

void Line::push(ThreadPool::Task task, Wait wait)
{
  // The pool would note the caller of the task that stands before this one.
  auto withCaller = [caller = currentCaller(), task = std::move(task)]
  {
    const CallerScope scope(caller);
    task();
  };
  bool isTooLong = false;
  bool begins = false;
  {
    const std::lock_guard lock(_mutex);
    _entries.push_back({std::move(withCaller), std::move(wait)});
    if (_entries.size() >= tooMany)
      isTooLong = !std::exchange(_isTooLong, true);
    begins = !std::exchange(_running, true);
  }
  if (isTooLong) // whoever pushes may hold locks
    _pool->post([self = shared_from_this()] { self->reportLength(); });
  if (begins)
    _pool->post([self = shared_from_this()] { self->runNext(); });
}

Future<void> Line::passed()
{
  const Promise<void> promise(_pool);
  push([promise] { promise.setValue(); });
  return promise.future();
}

void Line::reportLength()
{
  {
    auto& all = longLines();
    const std::lock_guard lock(all.mutex);
    std::erase_if(all.lines, [this](const std::weak_ptr<Line>& line) { return line.expired() || line.lock().get() == this; });
    all.lines.push_back(weak_from_this());
  }
  log::warning("vu", "Line", std::to_string(tooMany) + " " + _name + " wait: whoever takes them is held up, or does not keep up");
}

std::map<std::string, std::size_t> Line::tooLong()
{
  std::map<std::string, std::size_t> lengths;
  auto& all = longLines();
  const std::lock_guard lock(all.mutex);
  std::erase_if(all.lines,
                [&lengths](const std::weak_ptr<Line>& weak)
                {
                  const auto line = weak.lock();
                  if (!line)
                    return true;
                  const std::lock_guard lineLock(line->_mutex);
                  if (line->_isTooLong)
                    lengths[line->_name] += line->_entries.size();
                  return !line->_isTooLong;
                });
  return lengths;
}

void Line::runNext()
{
  // Several in one go, since taking a turn on the pool costs more than most
  // deliveries; but not all, so that others have theirs.
  for (int i = 0; i < deliveriesPerTurn; ++i)
  {
    Entry entry;
    {
      const std::lock_guard lock(_mutex);
      if (_entries.empty())
      {
        _running = false;
        return;
      }
      // One that has to be waited for keeps its place.
      entry.wait = std::exchange(_entries.front().wait, nullptr);
      if (!entry.wait)
      {
        entry = std::move(_entries.front());
        _entries.pop_front();
        if (_entries.size() < tooMany / 2)
          _isTooLong = false;
      }
    }
    if (entry.wait)
    {
      if (entry.wait([self = shared_from_this()] { self->runNext(); }))
        return;
      continue;
    }
    try
    {
      entry.task();
    }
    catch (...)
    {
      log::callbackError("a delivery");
    }
    // What it holds goes before the next one runs.
  }
  _pool->post([self = shared_from_this()] { self->runNext(); });
}

} // namespace vu
