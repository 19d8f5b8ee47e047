#include <fstream>
#include <future>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using vu::log::Level;

namespace
{

std::string readFile(const std::string& name)
{
  std::ifstream file(std::string(GOLDEN_DIRECTORY) + "/" + name);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

} // namespace

TEST(Service, DescribesItselfExactlyAsPublished)
{
  TestPlatform platform;
  platform.start();
  const auto published = vu::Value::parse(readFile("service.json"));
  const vu::Value described = platform.broker->session()->find("ZBBehaviorManager")->description();
  ASSERT_EQ(described["methods"].size(), published["methods"].size());
  for (std::size_t i = 0; i < published["methods"].size(); ++i)
    EXPECT_EQ(described["methods"][i], published["methods"][i]) << "method " << i + 1;
  EXPECT_EQ(described["signals"], published["signals"]);
  EXPECT_EQ(described["description"], published["description"]);
}

TEST(Service, RefusesMethodsThatItDoesNotPublish)
{
  TestPlatform platform;
  platform.start();
  const ZBProxy proxy(platform.broker, "ZBBehaviorManager");
  for (const char* method : {"loadBehavior", "unloadBehavior", "getPackageDir"})
    try
    {
      proxy.call(method, std::string("P/a"));
      FAIL() << method;
    }
    catch (const ZBError& error)
    {
      EXPECT_EQ(error.kind(), vu::ServiceError::Kind::UnknownMethod) << method;
    }
}

TEST(StartUp, SubscribesAndDeclaresInItsOrderAndAsksForPackagesLast)
{
  TestPlatform platform;
  platform.start({platform.makePackage("P", TestPlatform::paths({"a"}))});
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("memory subscribeToMicroEvent TarvikReady ZBBehaviorManager '' _onDataChanged",
                          "memory declareEvent ZBBehaviorManager/BehaviorsLoaded", "memory declareEvent BehaviorsRun",
                          "memory declareEvent ZBBehaviorManager/BehaviorFailed", "memory declareEvent ZBBehaviorManager/BehaviorAdded",
                          "memory declareEvent ZBBehaviorManager/BehaviorsAdded", "memory declareEvent ZBBehaviorManager/BehaviorUpdated",
                          "memory declareEvent ZBBehaviorManager/BehaviorRemoved", "memory declareEvent ZBBehaviorManager/BehaviorsRemoved",
                          "memory subscribeToEvent packageInstalled ZBBehaviorManager '' _onDataChanged",
                          "memory subscribeToEvent packageRemoved ZBBehaviorManager '' _onDataChanged", "packages packages"));
  EXPECT_THAT(platform.manager->getInstalledBehaviors(), ElementsAre("P/a"));
}

TEST(StartUp, SurvivesEachRefusalOfTheMemory)
{
  const std::string end = " event. The BehaviorManager is not started properly.";
  const std::vector<std::pair<std::string, std::string>> cases{
      {"subscribeToMicroEvent TarvikReady", "Could not subscribe to the TarvikReady" + end},
      {"declareEvent BehaviorsRun", "Could not declare the BehaviorsRun" + end},
      {"declareEvent ZBBehaviorManager/BehaviorsRemoved", "Could not declare the ZBBehaviorManager/BehaviorsRemoved" + end},
      {"subscribeToEvent packageInstalled", "Could not subscribe to \"packageInstalled\" event: no"},
      {"subscribeToEvent packageRemoved", "Could not subscribe to \"packageRemoved\" event: no"}};
  for (const auto& [call, line] : cases)
  {
    SCOPED_TRACE(call);
    TestPlatform platform;
    platform.startServices();
    platform.memory->refuse(call, "no");
    platform.start();
    EXPECT_EQ(platform.journal.lines().size(), 12U) << "a step was left out";
    const auto logged = platform.log.lines();
    ASSERT_EQ(logged.size(), 1U);
    EXPECT_EQ(logged[0].message, line);
    EXPECT_EQ(logged[0].level, Level::Error);
    EXPECT_EQ(logged[0].category, "behaviormanager");
    EXPECT_EQ(logged[0].function, "ZBBehaviorManager");
  }
}

TEST(StartUp, FailsWithoutPackagesOrFrameManagerAndLeavesNothing)
{
  TestPlatform platform;
  platform.startServices();
  platform.packageManager->refuse("packages", "broken");
  EXPECT_THROW(platform.start(), ZBError);
  EXPECT_EQ(platform.broker->session()->find("ZBBehaviorManager"), nullptr);
  platform.packageManager->acceptAll();
  EXPECT_NO_THROW(platform.start());
  platform.stop();

  // Without a frame manager the constructor waits; the host's end ends the wait.
  platform.broker->removeModule("ZBFrameManager");
  auto late = std::async(std::launch::async, [&] { return errorOf([&] { platform.start(); }); });
  EXPECT_EQ(late.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  platform.broker->session()->close();
  EXPECT_THROW(late.get(), vu::ServiceError);
}

TEST(Readiness, PlaysDefaultsOnlyForValuesThatTruncateToOne)
{
  TestPlatform platform;
  platform.start({platform.makePackage("P", TestPlatform::paths({".default"}))});
  const auto plays = [&](const std::string& event, const ZBValue& value)
  {
    platform.journal.clear();
    platform.manager->onDataChanged(event, value, "");
    platform.settle();
    platform.manager->stopAllBehaviors();
    return platform.journal.count("signal behaviorStarted [\"P/.default\"]");
  };
  for (const ZBValue& value : {ZBValue(1), ZBValue(1.0), ZBValue(1.7)})
    EXPECT_EQ(plays("TarvikReady", value), 1U) << value.value();
  for (const ZBValue& value : {ZBValue(0), ZBValue(2), ZBValue(0.9), ZBValue(-1), ZBValue(1e30)})
    EXPECT_EQ(plays("TarvikReady", value), 0U) << value.value();
  EXPECT_EQ(plays("TarvikRead", 1), 0U);

  const auto other = platform.makePackage("Q", TestPlatform::paths({"a"}));
  platform.manager->onDataChanged("package", other.toValue(), "");
  EXPECT_THAT(platform.manager->getInstalledBehaviors(), ElementsAre("P/.default"));
}

TEST(ShutDown, StopsTheRunningThenUnloadsTheLoaded)
{
  TestPlatform platform;
  platform.start({platform.makePackage("P", TestPlatform::paths({"a", "b", "c"}))});
  platform.manager->loadBehavior("P/a");
  platform.manager->startBehavior("P/b");
  platform.manager->loadBehavior("P/c");
  const auto b = platform.id("P/b");
  const std::vector<std::string> others{platform.id("P/a"), platform.id("P/c")};
  platform.journal.clear();
  platform.stop();
  EXPECT_THAT(platform.journal.lines("frames deleteBehavior "), ElementsAre(b, others[0], others[1]));
  EXPECT_THAT(platform.journal.lines("signal behaviorStopped "), ElementsAre("[\"P/b\"]", "[\"P/a\"]", "[\"P/c\"]"));
  EXPECT_TRUE(platform.frames->behaviors().empty());
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST(ShutDown, LogsErrorsAndUnloadsWhatNoNameResolvesTo)
{
  TestPlatform platform;
  const auto package = platform.makePackage("P", TestPlatform::paths({"a", "b"}));
  platform.start({package});
  platform.manager->startBehavior("P/a");
  platform.manager->startBehavior("P/b");
  // The removal breaks off at its first behavior; the second runs on without a name.
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorRemoved", "no", 1);
  EXPECT_THROW(platform.remove(package), ZBError);
  EXPECT_EQ(platform.frames->behaviors().size(), 1U);
  platform.stop();
  EXPECT_EQ(platform.log.count(Level::Verbose, "~ZBBehaviorManager: behavior P/b is not installed."), 2U);
  EXPECT_TRUE(platform.frames->behaviors().empty());
}

TEST(Page, IsBuiltFromTheListsAndTheScript)
{
  TestPlatform platform;
  platform.start();
  const auto start = "<html><body><script>" + readFile("script.js") + "</script>";
  EXPECT_EQ(platform.manager->javaScriptCode(), readFile("script.js"));
  EXPECT_EQ(platform.manager->httpGet(), start + "</body></html>");

  platform.install(platform.makePackage("P", TestPlatform::paths({"a", "."})));
  platform.manager->loadBehavior("P");
  platform.manager->startBehavior("P/a");
  const std::string table = "<table cellspacing=\"5\" cellpadding=\"5\"><tr><td><b>Name</b></td>";
  const auto row = [](const std::string& function, const std::string& name)
  { return "<tr><td><a href=\"javascript:" + function + "('" + name + "');\">" + name + "</a></td></tr>"; };
  EXPECT_EQ(platform.manager->httpGet(),
            start + "<i><u>Loaded behaviors</u></i><br>" + table + "<td><b>Loaded by dependency</b></td></tr>" +
                "<tr><td>P/.</td><td></td></tr><tr><td>P/a</td><td></td></tr></table><br><br><br>" + "<i><u>Running behaviors</u></i><br>" +
                table + "</tr>" + row("stopBehavior", "P/a") + "</table><br><br><br>" + "<i><u>Installed behaviors</u></i><br>" + table +
                "</tr>" + row("playBehavior", "P/a") + row("playBehavior", "P") + "</table></body></html>");
}
