#include <vu/log.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <stdexcept>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/text.hpp>

namespace vu::log
{

struct Capture::Store
{
  mutable std::mutex mutex; // guards lines
  std::vector<Line> lines;
};

namespace
{

constexpr std::array<std::string_view, 7> levelNames{"silent", "fatal", "error", "warning", "info", "verbose", "debug"};

std::atomic<Level> maximum{Level::Info};

std::mutex capturesMutex; // guards captures
std::vector<std::shared_ptr<Capture::Store>> captures;
std::atomic<bool> capturing{false};

spdlog::logger& output()
{
  // Never destroyed: late threads may still log while the process ends.
  static auto* const logger = []
  {
    auto* made = new spdlog::logger("tarvik", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    made->set_level(spdlog::level::trace);
    made->set_pattern("%Y-%m-%dT%H:%M:%S.%e %v");
    made->flush_on(spdlog::level::trace);
    return made;
  }();
  return *logger;
}

/// One line stays one line, whatever a behavior prints or a client sends.
std::string oneLine(std::string_view text)
{
  while (!text.empty() && text.back() == '\n')
    text.remove_suffix(1);
  return visible(text);
}

} // namespace

void setLevel(Level level) { maximum = level; }

Level level() { return maximum; }

Level levelFromText(std::string_view text)
{
  for (std::size_t i = 0; i < levelNames.size(); ++i)
    if (text == levelNames[i] || text == std::to_string(i))
      return static_cast<Level>(i);
  throw std::invalid_argument("unknown log level '" + std::string(text) + "': use silent, fatal, error, warning, info, verbose or debug");
}

void write(Level level, std::string_view category, std::string_view function, std::string_view message)
{
  if (capturing)
  {
    const std::lock_guard lock(capturesMutex);
    for (const auto& store : captures)
    {
      const std::lock_guard storeLock(store->mutex);
      store->lines.push_back({level, std::string(category), std::string(function), std::string(message), currentCaller()});
    }
  }
  if (level > maximum.load() || level == Level::Silent)
    return;
  const auto& caller = currentCaller();
  output().info("[{}] {}.{}{}{}: {}", levelNames[static_cast<std::size_t>(level)], category, function, caller.empty() ? "" : " for ",
                oneLine(caller), oneLine(message));
}

void callbackError(std::string_view where) noexcept
{
  try
  {
    error("vu", __func__, std::string(where) + " threw: " + errorText(std::current_exception()));
  }
  catch (...)
  {
    // Nothing is left to report with.
  }
}

Capture::Capture() : _store(std::make_shared<Store>())
{
  const std::lock_guard lock(capturesMutex);
  captures.push_back(_store);
  capturing = true;
}

Capture::~Capture()
{
  const std::lock_guard lock(capturesMutex);
  std::erase(captures, _store);
  capturing = !captures.empty();
}

std::vector<Line> Capture::lines() const
{
  const std::lock_guard lock(_store->mutex);
  return _store->lines;
}

std::size_t Capture::count(Level level, std::string_view text) const
{
  const auto all = lines();
  return static_cast<std::size_t>(std::count_if(
      all.begin(), all.end(), [&](const Line& line) { return line.level == level && line.message.find(text) != std::string::npos; }));
}

void Capture::clear()
{
  const std::lock_guard lock(_store->mutex);
  _store->lines.clear();
}

} // namespace vu::log
