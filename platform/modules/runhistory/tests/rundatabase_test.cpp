#include <functional>

#include <gmock/gmock.h>

#include <rundatabase.hpp>
#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <vu/log.hpp>

namespace ZB
{

namespace fs = std::filesystem;

class RunDatabaseTest : public testing::Test
{
protected:
  static vu::Value write(RunDatabase& database, std::int64_t id, bool ended = true)
  {
    ZB::Run run{id, "demo/t", "fm-1", "alice", 1000, std::nullopt, ZB::Run::Outcome::Running, "", "", ""};
    if (ended)
    {
      run.end = 1000 + id;
      run.outcome = Run::Outcome::Failed;
      run.step = "fail (t/behavior.xar:2)";
      run.message = std::string("no 'arm'\0\xC3\xA4", 11);
    }
    database.write({run});
    return run.toValue();
  }
  void sql(const char* statement) const
  {
    sqlite3* connection = nullptr;
    sqlite3_open(file.c_str(), &connection);
    EXPECT_EQ(sqlite3_exec(connection, statement, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
  }
  static std::vector<std::int64_t> ids(RunDatabase& database)
  {
    std::vector<std::int64_t> ids;
    for (const auto& run : database.newest(1000))
      ids.push_back(run.id);
    return ids;
  }

  /// The bytes of a history of 200 runs.
  std::string filled() const
  {
    {
      RunDatabase whole(file, 1000);
      for (int id = 1; id <= 200; ++id)
        write(whole, id);
    }
    return TestSupport::readFile(file);
  }

  const TestSupport::TemporaryDirectory directory;
  const fs::path file = directory / "history.db";
  static constexpr std::int64_t now = 1'800'000'000'000;
};

TEST_F(RunDatabaseTest, RunsComeBackWholeAndThoseLeftOpenAreLost)
{
  vu::Value expected;
  {
    RunDatabase database(file, 10);
    EXPECT_EQ(database.begin(now), 0);
    write(database, 1, false);
    write(database, 2, false);
    expected = write(database, 2);
  }
  RunDatabase database(file, 10);
  EXPECT_EQ(database.begin(now), 2);
  const auto runs = database.newest(10);
  ASSERT_EQ(runs.size(), 2U);
  EXPECT_EQ(runs[0].toValue(), expected);
  EXPECT_EQ(runs[1].reason(), "the host ended without a word");
  EXPECT_EQ(runs[1].end, runs[0].end) << "the last moment that was written down";
}

TEST_F(RunDatabaseTest, OldRunsGoButForThoseThatStillPlay)
{
  RunDatabase database(file, 3);
  write(database, 1, false);
  for (int id = 2; id <= 20; ++id)
    write(database, id);
  EXPECT_THAT(ids(database), testing::ElementsAre(20, 19, 18, 1));
  write(database, 1);
  write(database, 21);
  EXPECT_THAT(ids(database), testing::ElementsAre(21, 20, 19));
}

TEST_F(RunDatabaseTest, AFileThatIsNoHistoryIsSetAsideAndANewOneBegun)
{
  const std::vector<std::pair<const char*, std::function<void()>>> faults{
      {"no database", [&] { TestSupport::writeFile(file, std::string(5000, 'x')); }},
      {"of no version", [&] { sql("PRAGMA user_version = -7"); }},
      {"with other tables", [&] { sql("CREATE TABLE runs (id INTEGER, what TEXT)"); }},
      {"cut off", [&] { TestSupport::writeFile(file, filled().substr(0, 6000)); }},
      {"damaged inside", [&] { TestSupport::writeFile(file, filled().replace(4096, 8192, 8192, '\xFF')); }}};
  for (const auto& [what, prepare] : faults)
  {
    SCOPED_TRACE(what);
    for (const auto& name : TestSupport::namesIn(directory))
      fs::remove(directory / name);
    prepare();
    const auto before = TestSupport::readFile(file);
    TestSupport::writeFile(file.string() + ".damaged", "an earlier one");
    const vu::log::Capture log;
    RunDatabase database(file, 10);
    EXPECT_EQ(database.begin(now), 0);
    write(database, 1);
    EXPECT_THAT(ids(database), testing::ElementsAre(1));
    EXPECT_TRUE(TestSupport::readFile(file.string() + ".damaged.2") == before);
    EXPECT_EQ(TestSupport::readFile(file.string() + ".damaged"), "an earlier one");
  }
}

TEST_F(RunDatabaseTest, WhatANewerHostHasWrittenOrSomebodyHoldsIsLeftAloneUntilItIsFree)
{
  (void)filled();
  sql("PRAGMA user_version = 7");
  const auto before = TestSupport::readFile(file);
  RunDatabase database(file, 1000);
  EXPECT_THAT(TestSupport::errorOf([&] { database.begin(now); }), testing::HasSubstr("a newer host has written it (version 7"));
  EXPECT_TRUE(TestSupport::readFile(file) == before);
  sql("PRAGMA user_version = 1");
  sqlite3* other = nullptr;
  sqlite3_open(file.c_str(), &other);
  sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
  EXPECT_THAT(TestSupport::errorOf([&] { database.begin(now); }), testing::HasSubstr("locked"));
  sqlite3_close(other);
  EXPECT_EQ(database.begin(now), 200);
  EXPECT_FALSE(fs::exists(file.string() + "-shm")) << "a file that is mapped is a SIGBUS on a full disk";
}

TEST_F(RunDatabaseTest, ALostRunEndsWithTheLastNewsOfItsOwnClock)
{
  constexpr std::int64_t unset = 30'000;
  constexpr std::int64_t hour = 3'600'000;
  const auto run = [](std::int64_t id, std::int64_t begin, std::int64_t end)
  {
    ZB::Run made{id, "demo/t", "fm", "alice", begin, std::nullopt, Run::Outcome::Running, "", "", ""};
    if (end != 0)
      made.end = end, made.outcome = Run::Outcome::Finished;
    return made;
  };
  const auto lostEnd = [&](const std::vector<ZB::Run>& runs, std::int64_t atTheStart)
  {
    fs::remove(file);
    RunDatabase database(file, 10);
    database.write(runs);
    database.begin(atTheStart);
    return database.newest(1).at(0).end.value_or(0);
  };
  const auto began = now - 10 * hour;
  EXPECT_EQ(lostEnd({run(1, began, now - hour), run(2, began, 0)}, now), now - hour);
  EXPECT_EQ(lostEnd({run(1, unset, unset + 5), run(2, began, 0)}, now), began) << "never before its begin";
  EXPECT_EQ(lostEnd({run(1, now + 100 * hour, now + 200 * hour), run(2, began, 0)}, now), began) << "a clock that was ahead";
  EXPECT_EQ(lostEnd({run(1, began, now - hour), run(2, unset, 0)}, now), unset) << "and one that had not been set";
  EXPECT_EQ(lostEnd({run(1, began, now - hour), run(2, began, 0)}, unset), now - hour) << "and is not set now";
}

TEST_F(RunDatabaseTest, TheLogOfAHistoryThatHasGoneOrWasReplacedBringsNothingBack)
{
  const auto log = file.string() + "-wal";
  const auto size = filled().size();
  std::string old;
  {
    RunDatabase running(file, 1000);
    write(running, 201);
    old = TestSupport::readFile(log);
    ASSERT_FALSE(old.empty());
  }
  for (const auto& replacement : {std::string(), std::string(size, 'x')})
  {
    fs::remove(file);
    if (!replacement.empty())
      TestSupport::writeFile(file, replacement);
    TestSupport::writeFile(log, old);
    RunDatabase database(file, 10);
    EXPECT_EQ(database.begin(now), 0);
    write(database, 1);
    EXPECT_THAT(ids(database), testing::ElementsAre(1));
  }
}

} // namespace ZB
