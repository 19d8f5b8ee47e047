#include <atomic>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include <behaviormanager/behaviormanager.hpp>
#include <packagemanager.hpp>
#include <runhistory.hpp>
#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <testing/journal.hpp>
#include <testing/waiting.hpp>
#include <vu/log.hpp>
#include <zb/zbproxy.hpp>
#include <zbframemanager.hpp>
#include <zbmemory.hpp>
#include <zbpreferences.hpp>

namespace ZB
{

namespace fs = std::filesystem;

/// The module among the platform's own, with packages on disk.
class RunHistoryTest : public testing::Test
{
protected:
  ~RunHistoryTest() override { broker->shutdown(); }

  void startFrames(const vu::Value& settings = vu::Value::object())
  {
    broker = ZBBroker::create({{}, {{"root", root.string()}, {"history", settings}}});
    broker->createModule<ZBMemory>("ZBMemory");
    broker->createModule<ZBPreferences>("ZBPreferences");
    broker->createModule<PackageManager>("PackageManager");
    frames = &broker->createModule<ZBFrameManager>("ZBFrameManager");
  }
  void start(const vu::Value& settings = vu::Value::object())
  {
    startFrames(settings);
    history = &broker->createModule<RunHistory>("RunHistory");
    broker->createModule<BehaviorManager::ZBBehaviorManager>("ZBBehaviorManager");
  }

  fs::path source(const std::string& uuid, const std::map<std::string, std::string>& behaviors) const
  {
    return TestSupport::writePackage(root / "sources" / uuid, uuid, behaviors);
  }
  void install(const fs::path& directory)
  {
    ZBProxy(broker, "PackageManager").call("install", directory.string(), "test");
    broker->pool()->waitUntilIdle();
  }
  void as(const char* caller, const std::string& method, const std::string& argument, const char* service = "ZBBehaviorManager")
  {
    const vu::CallerScope scope(caller);
    ZBProxy(broker, service).call(method, argument);
  }
  /// The last run, once it has ended; null when it does not in time.
  vu::Value lastEnded() const
  {
    vu::Value run;
    TestSupport::eventually(
        [&]
        {
          broker->pool()->waitUntilIdle();
          const auto runs = history->getRuns(1);
          run = runs.empty() || runs[0]["outcome"] == "running" ? vu::Value() : runs[0];
          return !run.is_null();
        });
    return run;
  }
  /// What is on disk, by instance, when the broker has gone.
  std::map<std::string, vu::Value> written()
  {
    broker->shutdown();
    std::map<std::string, vu::Value> runs;
    for (const auto& run : RunDatabase(root / "history.db", 100000).newest(100000))
      EXPECT_TRUE(runs.emplace(run.instance, run.toValue()).second) << run.instance << " is there twice";
    return runs;
  }

  const TestSupport::TemporaryDirectory root;
  std::shared_ptr<ZBBroker> broker;
  ZBFrameManager* frames = nullptr;
  RunHistory* history = nullptr;
};

TEST_F(RunHistoryTest, EveryEndHasItsOutcomeAndItsReason)
{
  start();
  std::vector<vu::Value> told; // touched on the pool, and when that is idle
  const vu::Object service(broker->session()->find("RunHistory"));
  for (const auto* signal : {"runBegan", "runEnded"})
    service.connect<vu::Value>(signal, [&told](const vu::Value& run) { told.push_back(run); }).value();
  const std::string endless = "<wait seconds=\"1000\"/>";
  const std::string stopSelf = "<call service=\"ZBBehaviorManager\" method=\"stopBehavior\" arguments='[\"demo/self\"]'/>";
  std::string wordy = "x";
  for (int i = 0; i < 3000; ++i)
    wordy += "ä"; // two bytes, so that a cut at an even place falls between them
  install(source("demo", {{"short", ""},
                          {"broken", "<fail reason=\"no arm\"/>"},
                          {"wordy", "<fail reason=\"" + wordy + "\"/>"},
                          {"long", endless},
                          {"self", stopSelf + endless}}));
  install(source("guests", {{"removed", endless}}));
  const auto tools = source("tools", {{"replaced", endless}});
  install(tools);

  const std::vector<std::tuple<const char*, const char*, std::string, const char*, std::function<void()>>> cases{
      {"demo/short", "finished", "ended by itself", "", [] {}},
      {"demo/broken", "failed", "failed at fail (broken/behavior.xar:2): no arm", "", [] {}},
      {"demo/wordy", "failed", "failed at fail (wordy/behavior.xar:2): " + wordy.substr(0, 4095) + "\uFFFD", "", [] {}},
      {"demo/long", "stopped", "stopped by bob", "bob", [&] { as("bob", "stopBehavior", "demo/long"); }},
      {"demo/self", "stopped", "stopped by demo/self for alice", "demo/self for alice", [] {}},
      {"guests/removed", "removed", "package removed", "", [&] { as("bob", "remove", "guests", "PackageManager"); }},
      {"tools/replaced", "removed", "package removed", "", [&] { install(tools); }},
  };
  for (const auto& [behavior, outcome, reason, stoppedBy, end] : cases)
  {
    SCOPED_TRACE(behavior);
    as("alice", "startBehavior", behavior);
    broker->pool()->waitUntilIdle();
    end();
    const auto run = lastEnded();
    ASSERT_FALSE(run.is_null());
    const vu::Value expected{
        {"behavior", behavior}, {"outcome", outcome}, {"reason", reason}, {"startedBy", "alice"}, {"stoppedBy", stoppedBy}};
    for (const auto& [name, value] : expected.items())
      EXPECT_EQ(run[name], value) << name;
    EXPECT_GE(run["end"], run["begin"]);
    broker->pool()->waitUntilIdle();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0]["id"], run["id"]);
    EXPECT_TRUE(told[0]["end"].is_null());
    EXPECT_EQ(told[1], run);
    told.clear();
  }
  as("alice", "preloadBehavior", "demo/long"); // not played: no run
  as("alice", "stopBehavior", "demo/long");
  const auto statistics = history->getStatistics();
  EXPECT_EQ(statistics["starts"], 7);
  EXPECT_EQ(statistics["outcomes"], (vu::Value{{"finished", 1}, {"failed", 2}, {"stopped", 2}, {"removed", 2}, {"shutdown", 0}}));
  EXPECT_EQ(statistics["durations"]["count"], 7);

  as("alice", "startBehavior", "demo/long");
  const auto direct = frames->createBehavior((root / "sources/demo").string(), "long/behavior.xar", "direct");
  frames->playBehavior(direct); // outlives the behavior manager and the history
  const auto runs = written();
  EXPECT_EQ(runs.size(), 9U);
  EXPECT_EQ(runs.at(direct)["reason"], "host shut down");
  EXPECT_EQ(std::count_if(runs.begin(), runs.end(), [](const auto& run) { return run.second["outcome"] == "shutdown"; }), 2);
}

TEST_F(RunHistoryTest, SettingsBoundTheRunsOrAreRefused)
{
  for (const vu::Value& runs : {vu::Value(0), vu::Value("many"), vu::Value(1.5), vu::Value(10000000)})
  {
    startFrames({{"runs", runs}});
    EXPECT_THROW(broker->createModule<RunHistory>("RunHistory"), ZBError) << runs;
    broker->shutdown();
  }
  start({{"runs", 2}});
  EXPECT_THROW(history->getRuns(0), ZBError);
  install(source("demo", {{"a", ""}, {"b", ""}, {"c", ""}}));
  for (const char* behavior : {"demo/a", "demo/b", "demo/c"})
  {
    as("alice", "startBehavior", behavior);
    EXPECT_EQ(lastEnded()["behavior"], behavior);
  }
  EXPECT_EQ(history->getRuns(10).size(), 2U);
}

TEST_F(RunHistoryTest, WhatCannotBeWrittenIsToldAndWrittenAsSoonAsItCanBehindTheEarlierRuns)
{
  const auto database = root / "history.db";
  constexpr int earlier = 5;
  for (int id = 1; id <= earlier; ++id)
    RunDatabase(database, 100).write({{id, "demo/old", "old" + std::to_string(id), "bob", id, id, Run::Outcome::Finished, "", "", ""}});
  fs::rename(database, root / "kept");
  fs::create_directories(database / "in the way");
  const vu::log::Capture log;
  start();
  install(source("demo", {{"a", ""}, {"b", "<wait seconds=\"1000\"/>"}}));
  as("alice", "startBehavior", "demo/a");
  EXPECT_EQ(lastEnded()["reason"], "ended by itself");
  as("alice", "startBehavior", "demo/b");
  EXPECT_EQ(log.count(vu::log::Level::Error, database.string()), 1U);
  fs::remove_all(database);
  fs::rename(root / "kept", database);
  EXPECT_TRUE(TestSupport::eventually([&] { return log.count(vu::log::Level::Info, "written down again") == 1; })) << "by itself";
  std::vector<std::int64_t> ids;
  for (const auto& run : history->getRuns(10))
    ids.push_back(run["id"]);
  EXPECT_THAT(ids, testing::ElementsAre(7, 6, 5, 4, 3, 2, 1));
  EXPECT_EQ(written().size(), 7U);
}

TEST_F(RunHistoryTest, AnEndWaitsOnceForADatabaseThatSomebodyHoldsHoweverManyPlay)
{
  sqlite3* other = nullptr;
  sqlite3_open((root / "history.db").c_str(), &other);
  EXPECT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  startFrames();
  history = &broker->createModule<RunHistory>("RunHistory");
  const auto package = source("demo", {{"a", "<wait seconds=\"1000\"/>"}});
  for (int i = 0; i < 50; ++i)
    frames->playBehavior(frames->createBehavior(package.string(), "a/behavior.xar", "demo/a"));
  const auto begin = std::chrono::steady_clock::now();
  broker->shutdown();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20)) << "half a second for each";
  sqlite3_close(other);
}

TEST_F(RunHistoryTest, RunsThatPlayFollowAClockThatIsSet)
{
  startFrames();
  std::atomic<std::int64_t> ahead = 0;
  history = &broker->createModule<RunHistory>("RunHistory", [&] { return RunHistory::systemNow() + ahead; });
  const auto begin = [this]
  {
    frames->playBehavior(frames->createBehavior(source("demo", {{"a", "<wait seconds=\"1000\"/>"}}).string(), "a/behavior.xar", "demo/a"));
    broker->pool()->waitUntilIdle();
  };
  constexpr std::int64_t years = 100'000'000'000;
  const auto before = RunHistory::systemNow();
  begin();
  ahead = years;
  begin();
  for (const auto& [instance, run] : written())
  {
    EXPECT_GE(run["begin"], before + years) << run;
    EXPECT_LE(run["end"], RunHistory::systemNow() + years) << run;
  }
}

TEST_F(RunHistoryTest, AnInstanceDeletedDuringTheAnnouncementOfItsStartHasBothAllTheSame)
{
  startFrames();
  frames->instanceStarted.connect([this](const std::string& id, const std::string&, const std::string&) { frames->deleteBehavior(id); });
  history = &broker->createModule<RunHistory>("RunHistory"); // hears of the end first
  const auto id = frames->createBehavior(source("demo", {{"a", ""}}).string(), "a/behavior.xar", "demo/a");
  as("alice", "playBehavior", id, "ZBFrameManager");
  EXPECT_EQ(written().at(id)["reason"], "stopped by alice");
}

TEST_F(RunHistoryTest, AStormLeavesOneEndedRunForEveryPlay)
{
  start();
  const std::vector<std::string> names{"storm/long", "storm/empty", "storm/fail"};
  const auto package = source("storm", {{"long", "<wait seconds=\"1000\"/>"}, {"empty", ""}, {"fail", "<fail reason=\"no arm\"/>"}});
  install(package);
  TestSupport::Journal played;
  frames->instanceStarted.connect([&](const std::string& id, const std::string&, const std::string&) { played.add(id); });
  const auto act = [&](unsigned client, int i, unsigned random)
  {
    if (client == 0 && i % 10 == 9)
      ZBProxy(broker, "PackageManager").call("install", package.string(), "test");
    else if (client == 1)
      history->getRuns(50);
    else
      as("client", random % 3 == 0 ? "stopBehavior" : "startBehavior", names[random / 3 % names.size()]);
  };
  std::vector<std::jthread> clients;
  for (unsigned client = 0; client < 6; ++client)
    clients.emplace_back(
        [&, client]
        {
          std::mt19937 random(client);
          for (int i = 0; i < 60; ++i) // not installed for the moment, running already, or deleted before it was played
            TestSupport::errorOf([&] { act(client, i, random()); });
        });
  clients.clear();
  std::vector<std::string> ended;
  for (const auto& [instance, run] : written())
    if (!run["end"].is_null())
      ended.push_back(instance);
  EXPECT_THAT(ended, testing::UnorderedElementsAreArray(played.lines()));
}

} // namespace ZB
