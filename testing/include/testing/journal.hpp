#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <testing/waiting.hpp>

namespace TestSupport
{

/// What happened, line by line, in one order. Thread-safe.
class Journal
{
public:
  void add(std::string line)
  {
    const std::lock_guard lock(_mutex);
    _lines.push_back(std::move(line));
    _changed.notify_all();
  }

  std::vector<std::string> lines() const
  {
    const std::lock_guard lock(_mutex);
    return _lines;
  }

  /// Only those that begin with `prefix`, without it.
  std::vector<std::string> lines(const std::string& prefix) const
  {
    std::vector<std::string> found;
    for (const auto& line : lines())
      if (line.starts_with(prefix))
        found.push_back(line.substr(prefix.size()));
    return found;
  }

  std::size_t count(const std::string& line) const
  {
    const auto all = lines();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
  }

  /// False when the line has not come within the limit.
  bool waitFor(const std::string& line, std::chrono::milliseconds limit = std::chrono::seconds(10)) const
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, limit, [&] { return std::find(_lines.begin(), _lines.end(), line) != _lines.end(); });
  }

  /// All lines, as soon as there are so many; those there are when they do not come in time.
  std::vector<std::string> waitForCount(std::size_t count) const
  {
    std::unique_lock lock(_mutex);
    _changed.wait_for(lock, patience, [&] { return _lines.size() >= count; });
    return _lines;
  }

  void clear()
  {
    const std::lock_guard lock(_mutex);
    _lines.clear();
  }

private:
  mutable std::mutex _mutex; // guards _lines
  mutable std::condition_variable _changed;
  std::vector<std::string> _lines;
};

} // namespace TestSupport
