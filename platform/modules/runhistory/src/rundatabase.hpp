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
/// What cannot be opened or written now (a full disk, somebody else's lock) is a
/// DatabaseError after half a second at most, and tried again at the next call;
/// so is a file of a newer version, which is left alone. A file that is no
/// history, or a damaged one, is kept under another name
/// (storage::nameForDamaged()) and a new one begun. A commit survives a crash of
/// the process; a power cut may take the last ones. While it is open, nobody
/// else can open it. Thread-safe.
class RunDatabase
{
public:
  /// Keeps the newest `limit` runs that have ended. Opens nothing yet.
  RunDatabase(std::filesystem::path file, std::int64_t limit) : _file(std::move(file)), _limit(limit) {}

  /// Declares lost what an earlier host has left running; gives the highest id.
  /// `now` in ms since the epoch.
  std::int64_t begin(std::int64_t now);
  /// Writes runs, each in the place of one with the same id: all or none.
  void write(const std::vector<Run>& runs);
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
  void writeOne(const Run& run);
  void loseRuns(std::int64_t now);
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
