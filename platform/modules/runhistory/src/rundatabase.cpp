#include <rundatabase.hpp>

#include <limits>
#include <utility>

#include <storage/durablefile.hpp>
#include <vu/log.hpp>
#include <vu/text.hpp>

namespace ZB
{

namespace
{

constexpr int version = 1;
constexpr int busyTimeoutMs = 500; // for somebody who looks at the file
/// Clocks that are earlier have not been set.
constexpr std::int64_t clocksAreSet = 1577836800000; // 2020-01-01, in ms since the epoch

constexpr const char* createTable = "CREATE TABLE IF NOT EXISTS runs (id INTEGER PRIMARY KEY, behavior TEXT NOT NULL, instance TEXT NOT "
                                    "NULL, started_by TEXT NOT NULL, began INTEGER NOT NULL, ended INTEGER, outcome TEXT NOT NULL, "
                                    "step TEXT NOT NULL, message TEXT NOT NULL, stopped_by TEXT NOT NULL)";
constexpr const char* writeRun = "INSERT OR REPLACE INTO runs (id, behavior, instance, started_by, began, ended, outcome, step, message, "
                                 "stopped_by) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* pruneRuns = "DELETE FROM runs WHERE id <= ? AND outcome <> 'running'";
constexpr const char* lastMoment =
    "SELECT MAX(t) FROM (SELECT began AS t FROM runs UNION ALL SELECT ended FROM runs) WHERE t >= ? AND t <= ?";
constexpr const char* markLost = "UPDATE runs SET outcome = 'lost', ended = MAX(began, CASE WHEN began >= ? THEN ? ELSE ? END) "
                                 "WHERE outcome = 'running'";
constexpr const char* newestRuns = "SELECT id, behavior, instance, started_by, began, ended, outcome, step, message, stopped_by FROM runs "
                                   "ORDER BY id DESC LIMIT ?";

int bind(sqlite3_stmt* statement, int index, const std::string& text)
{
  return sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string text(sqlite3_stmt* statement, int column)
{
  const auto* const bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
  return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column))) : std::string();
}

/// Makes a statement ready for its next use, and ends the transaction it
/// holds open, however it went.
class Reset
{
public:
  explicit Reset(sqlite3_stmt* statement) : _statement(statement) {}
  ~Reset() { sqlite3_reset(_statement); }
  Reset(const Reset&) = delete;
  Reset& operator=(const Reset&) = delete;

private:
  sqlite3_stmt* const _statement;
};

} // namespace

bool DatabaseError::isDamage() const
{
  // An error in the statements, which are fixed, is one in the tables.
  return _code == SQLITE_CORRUPT || _code == SQLITE_NOTADB || _code == SQLITE_ERROR || _code == SQLITE_MISMATCH;
}

/// Once more with a new file, where this one turns out to be damaged.
template <typename F> auto RunDatabase::attempt(const F& action) -> decltype(action())
{
  try
  {
    open();
    return action();
  }
  catch (const DatabaseError& error)
  {
    if (!error.isDamage())
      throw;
    setAside(error.what());
  }
  open();
  return action();
}

std::int64_t RunDatabase::begin(std::int64_t now)
{
  const std::lock_guard lock(_mutex);
  return attempt(
      [&]
      {
        loseRuns(now);
        return number("SELECT COALESCE(MAX(id), 0) FROM runs");
      });
}

/// The end is the last moment that the earlier host has written down, by the
/// same clock: one that was set meanwhile, or was ahead, tells nothing.
void RunDatabase::loseRuns(std::int64_t now)
{
  const auto last = [this](std::int64_t from, std::int64_t to)
  {
    const auto statement = prepare(lastMoment);
    check(sqlite3_bind_int64(statement.get(), 1, from));
    check(sqlite3_bind_int64(statement.get(), 2, to));
    return step(statement.get()) ? sqlite3_column_int64(statement.get(), 0) : 0;
  };
  const auto end = now >= clocksAreSet ? now : std::numeric_limits<std::int64_t>::max();
  const auto statement = prepare(markLost);
  check(sqlite3_bind_int64(statement.get(), 1, clocksAreSet));
  check(sqlite3_bind_int64(statement.get(), 2, last(clocksAreSet, end)));
  check(sqlite3_bind_int64(statement.get(), 3, last(0, clocksAreSet - 1)));
  step(statement.get());
}

void RunDatabase::write(const std::vector<Run>& runs)
{
  const std::lock_guard lock(_mutex);
  attempt(
      [&]
      {
        execute("BEGIN IMMEDIATE");
        try
        {
          for (const auto& run : runs)
            writeOne(run);
          execute("COMMIT");
        }
        catch (const DatabaseError&)
        {
          sqlite3_exec(_connection.get(), "ROLLBACK", nullptr, nullptr, nullptr); // some errors have done it
          throw;
        }
      });
}

void RunDatabase::writeOne(const Run& run)
{
  auto* const statement = _write.get();
  {
    const Reset reset(statement);
    check(sqlite3_bind_int64(statement, 1, run.id));
    check(bind(statement, 2, run.behavior));
    check(bind(statement, 3, run.instance));
    check(bind(statement, 4, run.startedBy));
    check(sqlite3_bind_int64(statement, 5, run.begin));
    check(run.end ? sqlite3_bind_int64(statement, 6, *run.end) : sqlite3_bind_null(statement, 6));
    check(bind(statement, 7, outcomeName(run.outcome)));
    check(bind(statement, 8, run.step));
    check(bind(statement, 9, run.message));
    check(bind(statement, 10, run.stoppedBy));
    step(statement);
  }
  if (run.id <= _limit)
    return;
  const Reset reset(_prune.get());
  check(sqlite3_bind_int64(_prune.get(), 1, run.id - _limit));
  step(_prune.get());
}

std::vector<Run> RunDatabase::newest(std::size_t count)
{
  const std::lock_guard lock(_mutex);
  return attempt(
      [&]
      {
        std::vector<Run> runs;
        auto* const statement = _newest.get();
        const Reset reset(statement);
        check(sqlite3_bind_int64(statement, 1, static_cast<std::int64_t>(count)));
        while (step(statement))
        {
          Run run;
          run.id = sqlite3_column_int64(statement, 0);
          run.behavior = text(statement, 1);
          run.instance = text(statement, 2);
          run.startedBy = text(statement, 3);
          run.begin = sqlite3_column_int64(statement, 4);
          if (sqlite3_column_type(statement, 5) != SQLITE_NULL)
            run.end = sqlite3_column_int64(statement, 5);
          try
          {
            run.outcome = outcomeOf(text(statement, 6));
          }
          catch (const std::invalid_argument& error)
          {
            fail(SQLITE_CORRUPT, error.what());
          }
          run.step = text(statement, 7);
          run.message = text(statement, 8);
          run.stoppedBy = text(statement, 9);
          runs.push_back(std::move(run));
        }
        return runs;
      });
}

void RunDatabase::open()
{
  if (_connection)
    return;
  sqlite3* connection = nullptr;
  const int code = sqlite3_open_v2(_file.c_str(), &connection, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  _connection.reset(connection); // there is one, most often, even for a failure
  try
  {
    check(code);
    sqlite3_busy_timeout(_connection.get(), busyTimeoutMs);
    // Before anything is read: the file that others would share with this
    // process is mapped, and a full disk makes that a SIGBUS.
    execute("PRAGMA locking_mode = EXCLUSIVE");
    const auto found = number("PRAGMA user_version");
    if (found > version)
      fail(SQLITE_CANTOPEN, "a newer host has written it (version " + std::to_string(found) + ", this host knows " +
                                std::to_string(version) + "); it is left as it is");
    if (found != 0 && found != version)
      fail(SQLITE_NOTADB, "it is of version " + std::to_string(found));
    if (found == 0 && number("SELECT COUNT(*) FROM sqlite_master") != 0)
      fail(SQLITE_NOTADB, "it holds something else");
    if (const auto checked = prepare("PRAGMA quick_check(1)"); step(checked.get()) && text(checked.get(), 0) != "ok")
      fail(SQLITE_CORRUPT, text(checked.get(), 0));
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = NORMAL");
    execute(createTable);
    execute(("PRAGMA user_version = " + std::to_string(version)).c_str());
    _write = prepare(writeRun);
    _prune = prepare(pruneRuns);
    _newest = prepare(newestRuns);
  }
  catch (const DatabaseError&)
  {
    close();
    throw;
  }
}

void RunDatabase::close()
{
  for (auto* const statement : {&_write, &_prune, &_newest})
    statement->reset();
  _connection.reset();
}

void RunDatabase::setAside(const std::string& reason)
{
  close();
  const auto aside = storage::nameForDamaged(_file);
  std::error_code error;
  std::filesystem::rename(_file, aside, error);
  if (error)
    fail(SQLITE_CANTOPEN, "it is damaged (" + reason + ") and cannot be renamed: " + error.message());
  // SQLite drops a log of changes that stands beside an empty file.
  vu::log::error("runhistory", "setAside",
                 "a new history is begun, since the old one cannot be used and has been renamed to " + vu::inQuotes(aside.string()) + ": " +
                     reason);
}

void RunDatabase::execute(const char* sql)
{
  const auto statement = prepare(sql);
  step(statement.get());
}

std::int64_t RunDatabase::number(const char* sql)
{
  const auto statement = prepare(sql);
  return step(statement.get()) ? sqlite3_column_int64(statement.get(), 0) : 0;
}

RunDatabase::Statement RunDatabase::prepare(const char* sql)
{
  sqlite3_stmt* statement = nullptr;
  check(sqlite3_prepare_v2(_connection.get(), sql, -1, &statement, nullptr));
  return Statement(statement);
}

bool RunDatabase::step(sqlite3_stmt* statement)
{
  const int code = sqlite3_step(statement);
  if (code != SQLITE_DONE && code != SQLITE_ROW)
    check(code);
  return code == SQLITE_ROW;
}

void RunDatabase::check(int code)
{
  if (code != SQLITE_OK)
    fail(code, _connection ? sqlite3_errmsg(_connection.get()) : sqlite3_errstr(code));
}

void RunDatabase::fail(int code, const std::string& reason)
{
  throw DatabaseError("the history " + vu::inQuotes(_file.string()) + ": " + reason, code & 0xFF);
}

} // namespace ZB
