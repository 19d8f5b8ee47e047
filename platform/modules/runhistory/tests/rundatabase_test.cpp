#include <fstream>
#include <functional>

#include <gmock/gmock.h>

#include <rundatabase.hpp>
#include <vu/log.hpp>

namespace ZB
{

namespace fs = std::filesystem;

class RunDatabaseTest : public testing::Test
{
protected:
  ~RunDatabaseTest() override { fs::remove_all(file.parent_path()); }

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
    database.write(run);
    return run.toValue();
  }
  static std::vector<std::int64_t> ids(RunDatabase& database)
  {
    std::vector<std::int64_t> ids;
    for (const auto& run : database.newest(1000))
      ids.push_back(run.id);
    return ids;
  }

  fs::path file = fs::path(mkdtemp((fs::temp_directory_path() / "rundatabase-XXXXXX").string().data())) / "history.db";
};

TEST_F(RunDatabaseTest, RunsComeBackWholeAndThoseLeftOpenAreLost)
{
  vu::Value expected;
  {
    RunDatabase database(file, 10);
    EXPECT_EQ(database.begin(), 0);
    write(database, 1, false);
    write(database, 2, false);
    expected = write(database, 2);
  }
  RunDatabase database(file, 10);
  EXPECT_EQ(database.begin(), 2);
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
  const auto contents = [](const fs::path& path)
  {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
  };
  const auto sql = [this](const char* statement)
  {
    sqlite3* connection = nullptr;
    sqlite3_open(file.c_str(), &connection);
    EXPECT_EQ(sqlite3_exec(connection, statement, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
  };
  const auto fill = [this]
  {
    RunDatabase whole(file, 1000);
    for (int id = 1; id <= 200; ++id)
      write(whole, id);
  };
  const std::vector<std::pair<const char*, std::function<void()>>> faults{
      {"no database", [&] { std::ofstream(file) << std::string(5000, 'x'); }},
      {"of a later version", [&] { sql("PRAGMA user_version = 7"); }},
      {"with other tables", [&] { sql("CREATE TABLE runs (id INTEGER, what TEXT)"); }},
      {"cut off", [&] { fill(), fs::resize_file(file, 6000); }},
      {"damaged inside", [&] { fill(), std::fstream(file, std::ios::in | std::ios::out).seekp(4096) << std::string(8192, '\xFF'); }}};
  for (const auto& [what, prepare] : faults)
  {
    SCOPED_TRACE(what);
    for (const auto* suffix : {"", "-wal", "-shm"})
      fs::remove(file.string() + suffix);
    prepare();
    const auto before = contents(file);
    const vu::log::Capture log;
    RunDatabase database(file, 10);
    EXPECT_EQ(database.begin(), 0);
    write(database, 1);
    EXPECT_THAT(ids(database), testing::ElementsAre(1));
    EXPECT_TRUE(contents(file.string() + ".damaged") == before);
  }
}

} // namespace ZB
