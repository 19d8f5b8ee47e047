#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// Logging by category. Every line carries its level, category, the name of
/// the function that wrote it and the caller on whose behalf it did (see
/// vu/caller.hpp). Lines go to stderr. Thread-safe.
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
