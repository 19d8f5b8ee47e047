#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using testing::IsEmpty;
using vu::log::Level;

namespace
{

using Script = StandInFrameManager::Script;

/// A platform with the package P of behaviors a, b and its root.
class Lifecycle : public testing::Test
{
protected:
  Lifecycle() : manager(platform.start({platform.makePackage("P", TestPlatform::paths({"a", "b", ".", "old/behavior.xar"}))}))
  {
    platform.journal.clear();
  }

  BehaviorState state(const std::string& path) { return access.info(path)->state(); }

  TestPlatform platform;
  ZBBehaviorManager& manager;
  ModuleAccess access{manager};
};

} // namespace

TEST_F(Lifecycle, LoadingHandsDirectoryFileAndNameToTheFrameManager)
{
  const auto directory = (platform.directory / "P").string();
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases{
      {"P/a", {directory, "a/behavior.xar", "P/a"}},
      {"User/P", {directory, "behavior.xar", "P/."}},
      {"old/behavior.xar", {directory, "old/behavior.xar", "P/old/behavior.xar"}}};
  for (const auto& [name, arguments] : cases)
  {
    EXPECT_TRUE(manager.loadBehavior(name));
    EXPECT_EQ(platform.frames->lastCreateArguments(), arguments);
  }
  EXPECT_TRUE(manager.loadBehavior("P/a")) << "loaded already";
  manager.startBehavior("P/a");
  EXPECT_TRUE(manager.loadBehavior("P/a")) << "running";
  EXPECT_EQ(platform.journal.lines("frames createBehavior ").size(), 3U);
  EXPECT_EQ(platform.id("P/a"), "fm-1");
  EXPECT_EQ(platform.id("P/b"), "");
}

TEST_F(Lifecycle, ErrorsNameTheMethodAndTheBehavior)
{
  EXPECT_EQ(errorOf([&] { manager.loadBehavior("x"); }), "preloadBehavior: behavior x is not installed.");
  EXPECT_EQ(errorOf([&] { manager.startBehavior("x"); }), "startBehavior: behavior x is not installed");
  EXPECT_EQ(errorOf([&] { manager.runBehavior("x"); }), "runBehavior: behavior x is not installed");
  EXPECT_EQ(errorOf([&] { manager.stopBehavior("x"); }), "stopBehavior: behavior x is not installed.");
  EXPECT_EQ(errorOf([&] { manager.unloadBehavior("x"); }), "unloadBehavior: behavior x is not installed.");
  EXPECT_EQ(errorOf([&] { platform.id("x"); }), "getBehaviorFrameManagerId: behavior x is not installed.");
  EXPECT_EQ(errorOf([&] { manager.getBehaviorRelativePath("fm-9"); }), "getBehaviorRelativePath: invalid parameter");
  EXPECT_EQ(errorOf([&] { manager.getPackageUid("fm-9"); }), "getPackageUid: invalid parameter");
  EXPECT_FALSE(access.hasRecord("x")) << "a failed call left a record";
  EXPECT_FALSE(access.hasRecord("")) << "a failed call left a record";

  manager.startBehavior("P/a");
  EXPECT_EQ(errorOf([&] { manager.startBehavior("a"); }), "startBehavior: behavior P/a is already running.");
  EXPECT_EQ(errorOf([&] { manager.runBehavior("a"); }), "startBehavior: behavior P/a is already running.");

  access.setState("P/b", static_cast<BehaviorState>(4));
  EXPECT_EQ(errorOf([&] { manager.loadBehavior("P/b"); }), "preloadBehavior: Could not load behavior, P/b was in an consistent state.");
}

TEST_F(Lifecycle, ARefusedLoadLeavesTheRecordAndTheNextOneSucceeds)
{
  platform.frames->refuse("createBehavior", "broken project", 1);
  EXPECT_EQ(errorOf([&] { manager.loadBehavior("P/a"); }), "of another module: ZBFrameManager");
  platform.frames->refuse("createBehavior", "broken project", 1);
  EXPECT_EQ(errorOf([&] { manager.startBehavior("P/a"); }), "startBehavior: behavior P/a failed to load: broken project");
  EXPECT_EQ(state("P/a"), BehaviorState::Unknown);
  EXPECT_THAT(platform.journal.lines("signal "), IsEmpty());
  EXPECT_NO_THROW(manager.startBehavior("P/a"));
  EXPECT_EQ(state("P/a"), BehaviorState::Running);
}

TEST_F(Lifecycle, EveryChangeIsAnnouncedAsTheTableSays)
{
  struct Change
  {
    BehaviorState from, to;
    std::vector<std::string> announced;
  };
  const std::string loaded = "event ZBBehaviorManager/BehaviorsLoaded ";
  const std::string running = "event BehaviorsRun ";
  const std::vector<Change> changes{
      {BehaviorState::Unknown, BehaviorState::Loaded, {"signal behaviorLoaded [\"P/a\"]", loaded + "[\"P/a\"]"}},
      {BehaviorState::Loaded, BehaviorState::Running, {"signal behaviorStarted [\"P/a\"]", running + "[\"P/a\"]"}},
      {BehaviorState::Running, BehaviorState::Loaded, {"signal behaviorLoaded [\"P/a\"]", loaded + "[\"P/a\"]"}},
      {BehaviorState::Loaded, BehaviorState::Stopped, {"signal behaviorStopped [\"P/a\"]", loaded + "[]"}},
      {BehaviorState::Running, BehaviorState::Stopped, {"signal behaviorStopped [\"P/a\"]", loaded + "[]", running + "[]"}},
      {BehaviorState::Unknown, BehaviorState::Stopped, {"signal behaviorStopped [\"P/a\"]"}},
      {BehaviorState::Stopped, BehaviorState::Unknown, {}},
      {BehaviorState::Loaded, BehaviorState::Unknown, {loaded + "[]"}},
      {BehaviorState::Running, BehaviorState::Unknown, {loaded + "[]", running + "[]"}},
      {BehaviorState::Running, BehaviorState::Running, {}}};
  for (const auto& change : changes)
  {
    SCOPED_TRACE(static_cast<int>(change.from) * 10 + static_cast<int>(change.to));
    access.info("P/a")->setState(change.from);
    platform.journal.clear();
    access.setState("P/a", change.to);
    EXPECT_EQ(platform.journal.lines(), change.announced);
  }

  access.info("P/a")->setState(BehaviorState::Running);
  platform.journal.clear();
  platform.memory->refuse("raiseMicroEvent", "memory is full", 1);
  access.setState("P/a", BehaviorState::Stopped);
  EXPECT_THAT(platform.journal.lines(), ElementsAre("signal behaviorStopped [\"P/a\"]")) << "the event behind the refused one was raised";
  const auto line = platform.log.lines().back();
  EXPECT_EQ(line.message + line.category + line.function, "memory is fullbehaviormanagerxSetBehaviorState");
  EXPECT_EQ(line.level, Level::Warning);
}

TEST_F(Lifecycle, TheIdIndexFollowsTheRecord)
{
  access.setId("P/a", "one");
  access.setId("P/a", "two");
  EXPECT_EQ(errorOf([&] { manager.getPackageUid("one"); }), "getPackageUid: invalid parameter");
  EXPECT_EQ(manager.getPackageUid("two"), "P");
  access.setId("Gone/x", "three");
  EXPECT_EQ(manager.getPackageUid("three") + manager.getBehaviorRelativePath("three"), ".");
  access.setId("P/a", "");
  EXPECT_EQ(errorOf([&] { manager.getPackageUid("two"); }), "getPackageUid: invalid parameter");
}

TEST_F(Lifecycle, StoppingSurvivesRefusalsOfTheFrameManager)
{
  manager.startBehavior("P/a");
  platform.frames->refuse("behaviors", "busy", 1);
  platform.journal.clear();
  manager.stopBehavior("P/a");
  EXPECT_THAT(platform.journal.lines("frames deleteBehavior"), IsEmpty());
  EXPECT_EQ(platform.log.count(Level::Warning, "frame manager failed to list behaviors it handles: busy"), 1U);

  manager.startBehavior("P/b");
  platform.frames->refuse("deleteBehavior", "busy", 1);
  manager.stopBehavior("P/b");
  EXPECT_EQ(platform.log.count(Level::Warning, "error calling deleteBehavior, behavior P/b may have already been unloaded:busy"), 1U);
  EXPECT_EQ(state("P/b"), BehaviorState::Stopped);
  EXPECT_EQ(platform.frames->behaviors().size(), 2U);

  // Both end later, and take their connections along.
  platform.frames->end("fm-1");
  platform.frames->end("fm-2");
  platform.settle();
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Lifecycle, ARunCompletesWithItsOutcomeAndUnloads)
{
  const auto good = manager.runBehavior("P/a");
  EXPECT_FALSE(good.isFinished());
  platform.frames->end(platform.id("P/a"));
  EXPECT_TRUE(good.wait(std::chrono::seconds(10)));
  EXPECT_EQ(good.error(), "");
  EXPECT_EQ(state("P/a"), BehaviorState::Stopped);

  const auto bad = manager.runBehavior("P/b");
  const auto id = platform.id("P/b");
  platform.journal.clear();
  platform.frames->end(id, "no arm");
  EXPECT_EQ(bad.error(), "no arm");
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("signal behaviorFailed [\"P/b\",\"" + id + "\",\"no arm\"]",
                          "event ZBBehaviorManager/BehaviorFailed [\"P/b\",\"the step\",\"no arm\"]", "signal behaviorStopped [\"P/b\"]",
                          "event ZBBehaviorManager/BehaviorsLoaded []", "event BehaviorsRun []"));
  EXPECT_EQ(state("P/b"), BehaviorState::Stopped);
}

TEST_F(Lifecycle, AFailureThatTheMemoryRefusesIsLoggedUnderTheModulesName)
{
  manager.startBehavior("P/a");
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorFailed", "no", 1);
  platform.frames->end(platform.id("P/a"), "no arm");
  platform.settle();
  const auto line = platform.log.lines().back();
  EXPECT_EQ(line.category + "." + line.function + ": " + line.message, "ZBBehaviorManager.onBehaviorFailed: no");
  EXPECT_EQ(state("P/a"), BehaviorState::Stopped);
}

TEST_F(Lifecycle, AReportWithoutItsDirectoryLeavesTheRecordToTheRun)
{
  const auto run = manager.runBehavior("P/a");
  const auto id = platform.id("P/a");
  std::filesystem::remove(platform.directory / "P/a");
  manager.startBehavior("P/b");
  const auto other = platform.id("P/b");
  std::filesystem::remove(platform.directory / "P/b");
  platform.frames->end(other);
  platform.settle();
  EXPECT_EQ(state("P/b"), BehaviorState::Running);
  EXPECT_EQ(platform.id("P/b"), other);
  platform.frames->end(id);
  EXPECT_EQ(run.error(), "");
  EXPECT_EQ(state("P/a"), BehaviorState::Stopped);
  EXPECT_EQ(platform.frames->connections(), 0U);
}
