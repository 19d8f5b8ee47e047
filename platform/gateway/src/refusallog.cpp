#include "refusallog.hpp"

#include <utility>
#include <vector>

#include <vu/log.hpp>

namespace Tarvik
{

bool RefusalLog::admits(std::string address, Clock::time_point now)
{
  bool first = false;
  {
    const std::lock_guard lock(_mutex);
    const auto isOver = [now](const auto& entry) { return now - entry.second.begin >= std::chrono::seconds(1); };
    const auto isQuiet = [&isOver](const auto& entry) { return isOver(entry) && entry.second.lines <= linesPerSecond; };
    if (_seconds.size() >= addresses && !_seconds.contains(address))
    {
      std::erase_if(_seconds, isQuiet);
      if (_seconds.size() >= addresses)
        address = "all other addresses";
    }
    auto& entry = *_seconds.try_emplace(std::move(address), Second{now}).first;
    if (isQuiet(entry))
      entry.second = {now};
    if (++entry.second.lines <= linesPerSecond)
      return true;
    first = !std::exchange(_telling, true);
  }
  if (first)
    _leftOut();
  return false;
}

void RefusalLog::tell(Clock::time_point now)
{
  std::vector<std::pair<std::string, std::size_t>> leftOut;
  bool more = false;
  {
    const std::lock_guard lock(_mutex);
    for (auto entry = _seconds.begin(); entry != _seconds.end();)
    {
      const auto& [begin, lines] = entry->second;
      if (now - begin < std::chrono::seconds(1))
      {
        more = more || lines > linesPerSecond;
        ++entry;
        continue;
      }
      if (lines > linesPerSecond)
        leftOut.emplace_back(entry->first, lines - linesPerSecond);
      entry = _seconds.erase(entry);
    }
    _telling = more;
  }
  for (const auto& [address, lines] : leftOut)
    vu::log::info("gateway", "refuse", address + ": " + std::to_string(lines) + " more were refused, whose lines are left out");
  if (more)
    _leftOut();
}

} // namespace Tarvik
