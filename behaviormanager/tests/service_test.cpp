#include <future>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

std::string golden(const std::string& name) { return TestSupport::readFile(std::string(GOLDEN_DIRECTORY) + "/" + name); }

class BehaviorManagerService : public testing::Test
{
protected:
  ZBBehaviorManager& startWith(const std::vector<std::string>& paths)
  {
    auto& manager = platform.start({platform.makePackage("P", paths)});
    platform.journal.clear();
    return manager;
  }
  std::vector<std::string> logged()
  {
    std::vector<std::string> texts;
    for (const auto& line : platform.log.lines())
      texts.push_back(std::to_string(static_cast<int>(line.level)) + " " + line.category + "." + line.function + ": " + line.message);
    return texts;
  }

  TestPlatform platform;
};

} // namespace

TEST_F(BehaviorManagerService, DescribesItselfExactlyAsPublished)
{
  platform.start();
  const auto published = vu::Value::parse(golden("service.json"));
  const vu::Value described = platform.service().description();
  ASSERT_EQ(described["methods"].size(), published["methods"].size());
  for (std::size_t i = 0; i < published["methods"].size(); ++i)
    EXPECT_EQ(described["methods"][i], published["methods"][i]) << "method " << i + 1;
  EXPECT_EQ(described["signals"], published["signals"]);
  EXPECT_EQ(described["description"], published["description"]);
}

TEST_F(BehaviorManagerService, SubscribesAndDeclaresInItsOrderAndAsksForPackagesLastWhateverTheMemoryRefuses)
{
  platform.startServices({platform.makePackage("P", {"a"})});
  std::vector<std::string> steps{R"(subscribeToMicroEvent ["TarvikReady","ZBBehaviorManager","","_onDataChanged"])"};
  for (const char* event : {"ZBBehaviorManager/BehaviorsLoaded", "BehaviorsRun", "ZBBehaviorManager/BehaviorFailed",
                            "ZBBehaviorManager/BehaviorAdded", "ZBBehaviorManager/BehaviorsAdded", "ZBBehaviorManager/BehaviorUpdated",
                            "ZBBehaviorManager/BehaviorRemoved", "ZBBehaviorManager/BehaviorsRemoved"})
    steps.push_back(std::string("declareEvent [\"") + event + "\"]");
  for (const char* event : {"packageInstalled", "packageRemoved"})
    steps.push_back(std::string("subscribeToEvent [\"") + event + R"(","ZBBehaviorManager","","_onDataChanged"])");
  steps.emplace_back("packages []");

  const std::string end = " event. The BehaviorManager is not started properly.";
  for (const auto& [refused, call, line] : std::vector<std::tuple<std::size_t, std::string, std::string>>{
           {0, "subscribeToMicroEvent TarvikReady", "Could not subscribe to the TarvikReady" + end},
           {2, "declareEvent BehaviorsRun", "Could not declare the BehaviorsRun" + end},
           {9, "subscribeToEvent packageInstalled", "Could not subscribe to \"packageInstalled\" event: no"}})
  {
    SCOPED_TRACE(call);
    platform.journal.clear();
    platform.log.clear();
    platform.memory->refuse(call, "no");
    EXPECT_THAT(platform.start().getInstalledBehaviors(), ElementsAre("P/a"));
    auto accepted = steps;
    std::erase(accepted, steps[refused]);
    EXPECT_EQ(platform.journal.lines(), accepted);
    EXPECT_THAT(logged(), ElementsAre("2 behaviormanager.ZBBehaviorManager: " + line));
    platform.stop();
  }
}

TEST_F(BehaviorManagerService, FailsWithoutPackagesOrFrameManagerAndLeavesNothing)
{
  platform.startServices();
  platform.packageManager->refuse("packages", "broken");
  EXPECT_THROW(platform.start(), ZBError);
  EXPECT_EQ(platform.broker->session()->find("ZBBehaviorManager"), nullptr);
  // Without a frame manager the constructor waits; the host's end ends the wait.
  platform.broker->removeModule("ZBFrameManager");
  auto late = std::async(std::launch::async, [&] { platform.start(); });
  EXPECT_EQ(late.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  platform.broker->session()->close();
  EXPECT_THROW(late.get(), vu::ServiceError);
}

TEST_F(BehaviorManagerService, PlaysDefaultsOnlyForValuesThatTruncateToOne)
{
  auto& manager = startWith({".default"});
  const auto plays = [&](const std::string& event, const ZBValue& value)
  {
    manager.onDataChanged(event, value, "");
    platform.settle();
    const bool played = manager.isBehaviorRunning(".default");
    manager.stopAllBehaviors();
    return played;
  };
  for (const ZBValue& value : {ZBValue(1), ZBValue(1.7)})
    EXPECT_TRUE(plays("TarvikReady", value)) << value.value();
  for (const ZBValue& value : {ZBValue(0), ZBValue(2), ZBValue(0.9), ZBValue(-1), ZBValue(1e30)})
    EXPECT_FALSE(plays("TarvikReady", value)) << value.value();
  EXPECT_FALSE(plays("TarvikRead", 1));
  manager.onDataChanged("package", platform.makePackage("Q", {"a"}).toValue(), "");
  EXPECT_THAT(manager.getInstalledBehaviors(), ElementsAre("P/.default"));
}

TEST_F(BehaviorManagerService, DeprecatedMethodsSayWhatReplacesThem)
{
  auto& manager = startWith({"a"});
  manager.getBehaviorNames();
  manager.isBehaviorPresent("P/a");
  const std::string rest = " is deprecated. Please use getInstalledBehaviors instead, or use the PackageManager to filter results by "
                           "installer information.";
  const std::string warning = "3 behaviormanager.";
  EXPECT_THAT(logged(),
              ElementsAre(warning + "getBehaviorNames: getBehaviorNames" + rest,
                          warning + "getUserBehaviorNames: getUserBehaviorNames" + rest,
                          warning + "getSystemBehaviorNames: getSystemBehaviorNames" + rest,
                          warning + "isBehaviorPresent: isBehaviorPresent is deprecated, please use isBehaviorInstalled instead"));
}

TEST_F(BehaviorManagerService, ARefusedEventCostsThoseBehindItAndALine)
{
  auto& manager = startWith({"a", "b"});
  manager.startBehavior("P/a");
  platform.journal.clear();
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorFailed", "no");
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorsLoaded", "memory is full");
  platform.frames->end("fm-1", "no arm");
  platform.settle();
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("signal behaviorFailed [\"P/a\",\"fm-1\",\"no arm\"]", "signal behaviorStopped [\"P/a\"]"));
  EXPECT_THAT(logged(), ElementsAre("3 ZBBehaviorManager.onBehaviorFailed: no", "3 behaviormanager.xSetBehaviorState: memory is full"));

  // An installation breaks off where it is.
  platform.journal.clear();
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorAdded", "no");
  EXPECT_THROW(platform.install(platform.makePackage("Q", {"a", "b"})), ZBError);
  EXPECT_THAT(platform.journal.lines(), ElementsAre("signal behaviorStopped [\"Q/a\"]"));
}

TEST_F(BehaviorManagerService, StoppingSurvivesRefusalsOfTheFrameManager)
{
  auto& manager = startWith({"a", "b"});
  manager.startBehavior("P/a");
  platform.frames->refuse("behaviors", "busy");
  manager.stopBehavior("P/a");
  manager.startBehavior("P/b");
  platform.frames->refuse("deleteBehavior", "busy");
  manager.stopBehavior("P/b");
  const std::string warning = "3 behaviormanager.xUnloadBehavior: ";
  EXPECT_THAT(logged(), ElementsAre(warning + "frame manager failed to list behaviors it handles: busy",
                                    warning + "error calling deleteBehavior, behavior P/b may have already been unloaded:busy"));
  EXPECT_THAT(manager.getLoadedBehaviors(), IsEmpty());
  EXPECT_EQ(platform.frames->behaviors().size(), 2U);
  // Both end later, and take their connections along.
  platform.frames->end("fm-1");
  platform.frames->end("fm-2");
  platform.settle();
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(BehaviorManagerService, ItsEndStopsTheRunningThenUnloadsTheLoaded)
{
  auto& manager = startWith({"a", "b", "c"});
  const auto other = platform.makePackage("Q", {"d", "e"});
  platform.install(other);
  manager.loadBehavior("P/a");
  for (const char* name : {"P/b", "Q/d", "Q/e"})
    manager.startBehavior(name);
  manager.loadBehavior("P/c");
  // A removal that breaks off at its first behavior leaves the second without a name.
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorRemoved", "no");
  EXPECT_THROW(platform.remove(other), ZBError);
  platform.journal.clear();
  platform.stop();
  EXPECT_THAT(platform.journal.lines("signal behaviorStopped "), ElementsAre("[\"P/b\"]", "[\"P/a\"]", "[\"P/c\"]", "[\"Q/e\"]"));
  EXPECT_THAT(logged(), ElementsAre("5 behaviormanager.~ZBBehaviorManager: ~ZBBehaviorManager: behavior Q/e is not installed.",
                                    "5 behaviormanager.~ZBBehaviorManager: ~ZBBehaviorManager: behavior Q/e is not installed."));
  EXPECT_THAT(platform.frames->behaviors(), IsEmpty());
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(BehaviorManagerService, ItsPageIsBuiltFromTheListsAndTheScript)
{
  platform.start();
  EXPECT_EQ(platform.manager->javaScriptCode(), golden("script.txt"));
  EXPECT_EQ(platform.manager->httpGet(), "<html><body><script>" + golden("script.txt") + "</script></body></html>");
  platform.install(platform.makePackage("P", {"a", "."}));
  platform.manager->loadBehavior("P");
  platform.manager->startBehavior("P/a");
  EXPECT_EQ(platform.manager->httpGet(), golden("page.html"));
}
