#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// Logging by category. Every line carries its level, category, the name of
/// the function that wrote it and the caller on whose behalf it did (see
/// vu/caller.hpp). Lines go to stderr, and whoever writes one waits until that
/// has taken it, unless there is a Background. Thread-safe.
namespace vu::log
{

enum class Level
{
  Silent = 0,
  Fatal = 1,
  Error = 2,
  Warning = 3,
  Info = 4,
  Verbose = 5,
  Debug = 6
};

/// Lines above this level are not written. Info until set.
void setLevel(Level level);
Level level();

/// "silent", "fatal", "error", "warning", "info", "verbose", "debug", or the
/// number of one. Throws std::invalid_argument that names the text.
Level levelFromText(std::string_view text);

void write(Level level, std::string_view category, std::string_view function, std::string_view message);

inline void fatal(std::string_view category, std::string_view function, std::string_view message)
{
  write(Level::Fatal, category, function, message);
}
inline void error(std::string_view category, std::string_view function, std::string_view message)
{
  write(Level::Error, category, function, message);
}
inline void warning(std::string_view category, std::string_view function, std::string_view message)
{
  write(Level::Warning, category, function, message);
}
inline void info(std::string_view category, std::string_view function, std::string_view message)
{
  write(Level::Info, category, function, message);
}
inline void verbose(std::string_view category, std::string_view function, std::string_view message)
{
  write(Level::Verbose, category, function, message);
}
inline void debug(std::string_view category, std::string_view function, std::string_view message)
{
  write(Level::Debug, category, function, message);
}

/// Logs the exception that is being handled, at a boundary where nobody else
/// would hear of it; to be called from a catch block.
void callbackError(std::string_view where) noexcept;

class LogWriter;

/// While one exists, a thread of its own writes the lines, from a bounded
/// queue: who logs never waits for whoever reads. Lines for which there is no
/// room are left out; one line tells how many once the reader goes on. One at a
/// time, for a program whose work must not depend on its log.
class Background
{
public:
  Background();
  /// Waits a second at most until what is queued has been written. Where that
  /// is not enough, nothing more is written.
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

private:
  const std::shared_ptr<LogWriter> _writer;
};

/// Lines that nobody could be told since the process began.
std::uint64_t linesLeftOut();

struct Line
{
  Level level;
  std::string category;
  std::string function;
  std::string message;
  std::string caller; ///< empty when nobody asked
};

/// While one exists, every line of every level is kept in it, whatever
/// setLevel() says, besides going where it would go anyway. For tests.
class Capture
{
public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::vector<Line> lines() const;
  /// How many lines of `level` hold `text` in their message.
  std::size_t count(Level level, std::string_view text) const;
  void clear();

  struct Store;

private:
  std::shared_ptr<Store> _store;
};

} // namespace vu::log
