#include "refusallog.hpp"

#include <utility>
#include <vector>

#include <vu/log.hpp>

namespace Tarvik
{

bool RefusalLog::admits(std::string address, Clock::time_point now)
{
  const std::lock_guard lock(_mutex);
  const auto isQuiet = [now](const auto& entry)
  { return now - entry.second.begin >= std::chrono::seconds(1) && entry.second.lines <= linesPerSecond; };
  if (_seconds.size() >= addresses && !_seconds.contains(address))
  {
    std::erase_if(_seconds, isQuiet);
    if (_seconds.size() >= addresses)
      address = "all other addresses";
  }
  auto& entry = *_seconds.try_emplace(std::move(address), Second{now}).first;
  if (isQuiet(entry))
    entry.second = {now};
  return ++entry.second.lines <= linesPerSecond;
}

void RefusalLog::tell(Clock::time_point now)
{
  std::vector<std::pair<std::string, std::size_t>> leftOut;
  {
    const std::lock_guard lock(_mutex);
    std::erase_if(_seconds,
                  [now, &leftOut](const auto& entry)
                  {
                    const auto& [begin, lines] = entry.second;
                    if (now - begin < std::chrono::seconds(1))
                      return false;
                    if (lines > linesPerSecond)
                      leftOut.emplace_back(entry.first, lines - linesPerSecond);
                    return true;
                  });
  }
  for (const auto& [address, lines] : leftOut)
    vu::log::info("gateway", "refuse", address + ": " + std::to_string(lines) + " more were refused, whose lines are left out");
}

} // namespace Tarvik
