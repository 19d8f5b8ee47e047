#include "framemanagerfixture.hpp"

#include <future>

#include <pugixml.hpp>

#include <projectreader.hpp>

using testing::HasSubstr;

namespace ZB::FrameManager
{

namespace
{

const std::filesystem::path examples = EXAMPLE_PACKAGES;

struct Example
{
  std::filesystem::path package;
  std::string projectFile;
};

std::vector<Example> exampleBehaviors()
{
  std::vector<Example> result;
  for (const auto& entry : std::filesystem::directory_iterator(examples))
  {
    pugi::xml_document manifest;
    if (!manifest.load_file((entry.path() / "manifest.xml").c_str()))
      throw std::runtime_error("no manifest that can be read in " + entry.path().string());
    for (const auto& behavior : manifest.child("package").children("behavior"))
      result.push_back({entry.path(), (std::filesystem::path(behavior.attribute("path").value()) / "behavior.xar").string()});
  }
  return result;
}

} // namespace

class ExamplesTest : public FrameManagerTest
{
protected:
  std::string playExample(const std::string& package, const std::string& behavior) const
  {
    const auto id = manager->createBehavior((examples / package).string(), behavior + "/behavior.xar", package + "/" + behavior);
    manager->playBehavior(id);
    return id;
  }
};

TEST_F(ExamplesTest, EveryBehaviorOfEveryManifestIsRead)
{
  const auto behaviors = exampleBehaviors();
  EXPECT_GE(behaviors.size(), 9u);
  for (const auto& each : behaviors)
  {
    SCOPED_TRACE(each.package / each.projectFile);
    EXPECT_NO_THROW(readProject(each.package.string(), each.projectFile));
  }
}

TEST_F(ExamplesTest, TheShortOnesEndWell)
{
  const vu::log::Capture capture;
  std::map<std::string, std::string> ids;
  for (const std::string behavior : {"hello", "countdown", "wave"})
    ids[behavior] = playExample("greetings", behavior);
  ids["self-test"] = playExample("diagnostics", "self-test");
  for (const auto& [behavior, id] : ids)
    EXPECT_EQ(outcome(manager->waitForStopped(id)), "") << behavior;
  EXPECT_EQ(capture.count(vu::log::Level::Info, "greetings/countdown: tick"), 3u);
  EXPECT_EQ(capture.count(vu::log::Level::Info, "greetings/wave:  o/"), 3u);
}

TEST_F(ExamplesTest, TheNotebookKeepsAnEntryAndForgetsIt)
{
  EXPECT_EQ(outcome(manager->waitForStopped(playExample("notebook", "remember"))), "");
  EXPECT_EQ(broker->getProxy("ZBMemory")->call<vu::Value>("getData", std::string("Notebook/Entry")).at("text"), "water the plants");
  EXPECT_EQ(outcome(manager->waitForStopped(playExample("notebook", "forget"))), "");
  EXPECT_THAT(outcome(manager->waitForStopped(playExample("notebook", "forget"))), HasSubstr("Notebook/Entry"));
}

TEST_F(ExamplesTest, TheLowBatteryFailsWithAHelpfulReason)
{
  EXPECT_THAT(outcome(manager->waitForStopped(playExample("diagnostics", "low-battery"))), HasSubstr("put the robot on its charger"));
}

TEST_F(ExamplesTest, TheClockTicksUntilItIsStopped)
{
  const auto link = manager->getParentBroker()->getProxy("ZBMemory");
  const auto id = playExample("clock", ".");
  const vu::Object memory = *link;
  std::promise<void> ticked;
  std::atomic<int> ticks = 0;
  memory.connect<std::string, vu::Value>("eventRaised",
                                         [&](const std::string& key, const vu::Value&)
                                         {
                                           if (key == "Clock/Tick" && ++ticks == 2)
                                             ticked.set_value();
                                         });
  EXPECT_EQ(ticked.get_future().wait_for(patience), std::future_status::ready);
  EXPECT_TRUE(holds(id));
  manager->deleteBehavior(id);
  EXPECT_EQ(signalsOf(id), "stopped");
}

} // namespace ZB::FrameManager
