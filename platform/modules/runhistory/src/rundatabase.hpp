#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sqlite3.h>

#include <run.hpp>
#include <vu/error.hpp>

namespace ZB
{

/// The database could not do what was asked; the text names the file.
class DatabaseError : public vu::ServiceError
{
public:
  DatabaseError(const std::string& text, int code) : ServiceError("RunHistory", "RunDatabase", text), _code(code) {}
  /// Whether the file itself is at fault, and not what surrounds it.
  bool isDamage() const;

private:
  const int _code;
};

/// The runs of a root on disk, in one SQLite file.
///
/// What cannot be opened or written now (a full disk) is a DatabaseError, and
/// tried again at the next call. A file that is no history, or a damaged one,
/// is renamed to "<file>.damaged" and a new one begun. A commit survives a
/// crash of the process; a power cut may take the last ones. Thread-safe.
class RunDatabase
{
public:
  /// Keeps the newest `limit` runs that have ended. Opens nothing yet.
  RunDatabase(std::filesystem::path file, std::int64_t limit) : _file(std::move(file)), _limit(limit) {}

  /// Declares lost what an earlier host has left running; gives the highest id.
  std::int64_t begin();
  /// Writes a run, in the place of one with the same id.
  void write(const Run& run);
  /// The newest first.
  std::vector<Run> newest(std::size_t count);

private:
  struct CloseConnection
  {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
  };
  struct FinalizeStatement
  {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

  /// All with the mutex held.
  template <typename F> auto attempt(const F& action) -> decltype(action());
  void open();
  void close();
  void setAside(const std::string& reason);
  void execute(const char* sql);
  std::int64_t number(const char* sql);
  Statement prepare(const char* sql);
  /// Whether there is a row.
  bool step(sqlite3_stmt* statement);
  void check(int code);
  [[noreturn]] void fail(int code, const std::string& reason);

  const std::filesystem::path _file;
  const std::int64_t _limit;
  std::mutex _mutex;                                     // guards the members below
  std::unique_ptr<sqlite3, CloseConnection> _connection; ///< null while it is not open
  Statement _write;
  Statement _prune;
  Statement _newest;
};

} // namespace ZB
