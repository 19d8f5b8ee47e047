#include <outputbudget.hpp>

#include <utility>

namespace ZB::FrameManager
{

OutputBudget::OutputBudget(const Strand& strand, std::string behavior, std::shared_ptr<std::atomic<std::uint64_t>> allLeftOut)
    : _over(strand), _behavior(std::move(behavior)), _allLeftOut(std::move(allLeftOut))
{
}

OutputBudget::~OutputBudget() { beginSecond(); }

void OutputBudget::log(vu::log::Level level, const char* function, const std::string& line)
{
  if (std::chrono::steady_clock::now() >= _end)
    beginSecond();
  if (_lines < linesPerSecond && _bytes + line.size() <= bytesPerSecond)
  {
    ++_lines;
    _bytes += line.size();
    return vu::log::write(level, "framemanager", function, _behavior + ": " + line);
  }
  ++*_allLeftOut;
  if (++_leftOut == 1)
    tellWhenOver();
}

void OutputBudget::beginSecond()
{
  if (_leftOut != 0)
    vu::log::warning("framemanager", "log",
                     _behavior + ": " + std::to_string(_leftOut) + " lines left out: it prints more than " +
                         std::to_string(linesPerSecond) + " lines or " + std::to_string(bytesPerSecond >> 10) + " KiB a second");
  _end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  _lines = _bytes = _leftOut = 0;
}

/// It may fall silent before the next line would tell.
void OutputBudget::tellWhenOver()
{
  _over.expires_at(_end);
  _over.async_wait(
      [weak = weak_from_this()](const boost::system::error_code& error)
      {
        if (const auto self = weak.lock(); self && !error && std::chrono::steady_clock::now() >= self->_end)
          self->beginSecond();
      });
}

} // namespace ZB::FrameManager
