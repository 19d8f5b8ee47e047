#include <vu/log.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <utility>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/text.hpp>

#include "logwriter.hpp"

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

constexpr const char* linePattern = "%Y-%m-%dT%H:%M:%S.%e %v";
constexpr std::chrono::seconds lastWordsLimit(1);

std::atomic<Level> maximum{Level::Info};
std::atomic<std::uint64_t> leftOut{0};

std::mutex capturesMutex; // guards captures
std::vector<std::shared_ptr<Capture::Store>> captures;
std::atomic<bool> capturing{false};

std::string leftOutNotice(std::uint64_t lines)
{
  spdlog::memory_buf_t text;
  spdlog::pattern_formatter(linePattern)
      .format({"tarvik", spdlog::level::info,
               fmt::format("[warning] log.write: {} line{} left out: whoever reads the log did not keep up", lines, lines == 1 ? "" : "s")},
              text);
  return fmt::to_string(text);
}

/// Writes to stderr: at once, or through a writer while it has one.
class Output final : public spdlog::sinks::base_sink<std::mutex>
{
public:
  void setWriter(std::shared_ptr<LogWriter> writer)
  {
    const std::lock_guard lock(mutex_);
    std::swap(_writer, writer);
  }

private:
  void sink_it_(const spdlog::details::log_msg& message) override
  {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    if (_writer)
      _writer->push(fmt::to_string(line));
    else if (!writeWhole(STDERR_FILENO, {line.data(), line.size()}))
      ++leftOut;
  }
  void flush_() override {}

  std::shared_ptr<LogWriter> _writer; // guarded by mutex_
};

// Neither is ever destroyed: late threads may still log while the process ends.
const std::shared_ptr<Output>& output()
{
  static const auto* const sink = new std::shared_ptr<Output>(std::make_shared<Output>());
  return *sink;
}

spdlog::logger& logger()
{
  static auto* const made = []
  {
    auto* logger = new spdlog::logger("tarvik", output());
    logger->set_level(spdlog::level::trace);
    logger->set_pattern(linePattern);
    return logger;
  }();
  return *made;
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
  logger().info("[{}] {}.{}{}{}: {}", levelNames[static_cast<std::size_t>(level)], category, function, caller.empty() ? "" : " for ",
                oneLine(caller), oneLine(message));
}

std::uint64_t linesLeftOut() { return leftOut; }

Background::Background()
    : _writer(std::make_shared<LogWriter>(STDERR_FILENO, LogWriter::Limits(), LogWriter::Notice(leftOutNotice), leftOut))
{
  output()->setWriter(_writer);
}

Background::~Background()
{
  // Where the reader still stands, later lines are better lost than waited for.
  if (_writer->flush(lastWordsLimit))
    output()->setWriter(nullptr);
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
