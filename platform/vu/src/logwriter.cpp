#include "logwriter.hpp"

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace vu::log
{

struct LogWriter::Queue
{
  const int descriptor;
  const Limits limits;
  const Notice notice;
  std::atomic<std::uint64_t>& allLeftOut;

  std::mutex mutex; // guards the members below
  std::condition_variable changed;
  std::vector<std::string> lines;
  std::size_t bytes = 0;
  std::uint64_t leftOut = 0; ///< since the last notice
  bool full = false;         ///< since a line was left out: a shorter one would come before its time
  bool writing = false;
  bool closed = false;

  bool isDrained() const { return lines.empty() && !writing; }
};

bool writeWhole(int descriptor, std::string_view text)
{
  while (!text.empty())
  {
    const auto written = ::write(descriptor, text.data(), text.size());
    if (written >= 0)
      text.remove_prefix(static_cast<std::size_t>(written));
    else if (errno == EAGAIN)
    {
      pollfd ready{descriptor, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    }
    else if (errno != EINTR)
      return false;
  }
  return true;
}

LogWriter::LogWriter(int descriptor, Limits limits, Notice notice, std::atomic<std::uint64_t>& leftOut)
    : _queue(new Queue{descriptor, limits, std::move(notice), leftOut, {}, {}, {}}), _thread([queue = _queue] { run(queue); })
{
}

LogWriter::~LogWriter()
{
  bool drained = false;
  {
    const std::lock_guard lock(_queue->mutex);
    _queue->closed = true;
    drained = _queue->isDrained();
  }
  _queue->changed.notify_all();
  drained ? _thread.join() : _thread.detach();
}

void LogWriter::push(std::string line)
{
  {
    const std::lock_guard lock(_queue->mutex);
    if (_queue->full || _queue->lines.size() >= _queue->limits.lines || _queue->bytes + line.size() > _queue->limits.bytes)
    {
      _queue->full = true;
      ++_queue->leftOut;
      ++_queue->allLeftOut;
      return;
    }
    _queue->bytes += line.size();
    _queue->lines.push_back(std::move(line));
  }
  _queue->changed.notify_all();
}

bool LogWriter::flush(std::chrono::milliseconds limit)
{
  std::unique_lock lock(_queue->mutex);
  return _queue->changed.wait_for(lock, limit, [this] { return _queue->isDrained(); });
}

void LogWriter::run(const std::shared_ptr<Queue>& queue)
{
  std::unique_lock lock(queue->mutex);
  for (;;)
  {
    queue->changed.wait(lock, [&queue] { return !queue->lines.empty() || queue->closed; });
    if (queue->lines.empty())
      return;
    const auto lines = std::exchange(queue->lines, {});
    queue->bytes = 0;
    queue->full = false;
    // What was left out found these lines in its way, and so comes after them.
    auto leftOut = std::exchange(queue->leftOut, 0);
    queue->writing = true;
    lock.unlock();
    for (const auto& line : lines)
      if (!writeWhole(queue->descriptor, line))
      {
        ++leftOut;
        ++queue->allLeftOut;
      }
    if (leftOut != 0 && writeWhole(queue->descriptor, queue->notice(leftOut)))
      leftOut = 0;
    lock.lock();
    queue->leftOut += leftOut;
    queue->writing = false;
    queue->changed.notify_all();
  }
}

} // namespace vu::log
