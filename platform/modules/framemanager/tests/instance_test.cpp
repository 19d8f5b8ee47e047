#include "framemanagerfixture.hpp"

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace ZB::FrameManager
{

namespace
{

std::string deletion(const std::string& id)
{
  return "<call service=\"ZBFrameManager\" method=\"deleteBehavior\" arguments='[\"" + id + "\"]'/>";
}

} // namespace

class InstanceTest : public FrameManagerTest
{
};

TEST_F(InstanceTest, WhatIsRefusedNamesTheMethodAndTheReason)
{
  const auto ended = play(hold);
  manager->deleteBehavior(ended);
  const auto playing = play(hold);
  const auto broken = write("broken/behavior.xar", "<project format=\"1\">\n<wait seconds=\"-1\"/></project>");
  const std::tuple<const char*, std::string, std::function<void()>> cases[] = {
      {"createBehavior", "broken/behavior.xar:2 (offset 21): ", [&] { manager->createBehavior(directory.string(), broken, "x"); }},
      {"createBehavior", "absolute", [&] { manager->createBehavior("packages/x", broken, "x"); }},
      {"playBehavior", playing + " is playing already", [&] { manager->playBehavior(playing); }},
      {"playBehavior", "there is no behavior fm-x", [&] { manager->playBehavior("fm-x"); }},
      {"playBehavior", "there is no behavior " + ended, [&] { manager->playBehavior(ended); }},
      {"deleteBehavior", "there is no behavior fm-x", [&] { manager->deleteBehavior("fm-x"); }},
      {"deleteBehavior", "there is no behavior " + ended, [&] { manager->deleteBehavior(ended); }},
  };
  for (const auto& [method, reason, action] : cases)
  {
    const auto error = TestSupport::serviceErrorOf(action);
    EXPECT_EQ(error.module() + "." + error.method(), std::string("ZBFrameManager.") + method);
    EXPECT_THAT(error.description(), HasSubstr(reason));
  }
  EXPECT_THAT(manager->behaviors(), ElementsAre(playing));
}

TEST_F(InstanceTest, SettingsThatMakeNoSenseAreRefused)
{
  for (const auto& [setting, value] : {std::pair("terminateGraceMs", vu::Value(-1)),
                                       {"terminateGraceMs", "2 s"},
                                       {"createTimeoutMs", 1.5},
                                       {"playTimeoutMs", 10000000},
                                       {"guard", "tarvik-guard"},
                                       {"guards", 1}})
  {
    const auto other = ZBBroker::create({{}, {{"framemanager", {{setting, value}}}}});
    EXPECT_THAT(errorOf([&] { other->createModule<ZBFrameManager>("ZBFrameManager"); }), HasSubstr(std::string("framemanager.") + setting));
    other->shutdown();
  }
}

TEST_F(InstanceTest, TheEndIsSignalledOffTheListAndBeforeAnyWaiterHearsOfIt)
{
  for (const auto& [steps, expected] : {std::pair("", ""), {"<fail reason=\"no arm\"/>", "no arm"}})
  {
    const auto id = create(steps);
    const auto early = manager->waitForStopped(id);
    TestSupport::Journal journal;
    const auto look = [&, &id = id]
    { journal.add(holds(id) || early.isFinished() || manager->waitForStopped(id).isFinished() ? "late" : "in order"); };
    manager->behaviorFailed.connect([&](const std::string&, const std::string&, const std::string&) { look(); });
    manager->behaviorStopped.connect([&](const std::string&) { look(); });
    manager->playBehavior(id);
    EXPECT_EQ(outcome(early), expected);
    EXPECT_EQ(outcome(manager->waitForStopped(id)), expected);
    EXPECT_THAT(journal.lines(), testing::Each("in order"));
    start({});
  }
}

TEST_F(InstanceTest, ACallbackMayDeleteAnyOtherInstance)
{
  const auto other = play("<run command=\"sleep 1000\"/>");
  const auto unplayed = create("");
  const auto ending = create("");
  TestSupport::Event done;
  manager->behaviorStopped.connect(
      [&](const std::string& id)
      {
        if (id != ending)
          return;
        manager->deleteBehavior(other);
        manager->deleteBehavior(unplayed);
        EXPECT_THROW(manager->deleteBehavior(id), ZBError);
        done.set();
      });
  manager->playBehavior(ending);
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(outcome(manager->waitForStopped(ending)), "");
  for (const auto& id : {other, unplayed})
    EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(InstanceTest, DeletionStopsWhateverAStepWaitsFor)
{
  std::size_t begun = 0;
  for (const std::string& step : {std::string("<wait seconds=\"1000\"/>"), hold, std::string("<run command=\"sleep 1000\"/>"),
                                  std::string("<repeat><wait seconds=\"0\"/></repeat>")})
  {
    SCOPED_TRACE(step);
    // The note is made once the step that waits has begun.
    const auto id = play("<parallel>" + step + note("begun") + "</parallel>" + note("never"));
    const auto stopped = manager->waitForStopped(id);
    ASSERT_EQ(robot->notes.waitForCount(++begun).size(), begun);
    EXPECT_FALSE(stopped.isFinished());
    manager->deleteBehavior(id);
    EXPECT_TRUE(stopped.hasValue());
    EXPECT_FALSE(holds(id));
    EXPECT_EQ(signalsOf(id), "stopped");
  }
  EXPECT_EQ(robot->notes.count("never"), 0u);
}

TEST_F(InstanceTest, BehaviorsMayDeleteThemselvesAndEachOtherAndIdsAreNeverUsedAgain)
{
  write("manifest.xml", "<package uuid='demo'><may call='ZBFrameManager.deleteBehavior'/></package>");
  EXPECT_EQ(run(deletion("fm-1") + "<repeat><wait seconds=\"0.001\"/></repeat>"), "");
  EXPECT_EQ(signalsOf("fm-1"), "stopped");
  for (int number = 2; number < 100; number += 2)
  {
    const std::string one = "fm-" + std::to_string(number);
    const std::string other = "fm-" + std::to_string(number + 1);
    ASSERT_EQ(create("<parallel>" + deletion(other) + "<wait seconds=\"0.002\"/></parallel>"), one);
    ASSERT_EQ(create("<parallel>" + deletion(one) + "<wait seconds=\"0.002\"/></parallel>"), other);
    manager->playBehavior(one);
    // One may come too late to find the other, which then is its failure.
    EXPECT_THAT(errorOf([&] { manager->playBehavior(other); }), AnyOf("no error", HasSubstr("there is no behavior")));
    for (const auto& id : {one, other})
    {
      const auto failure = outcome(manager->waitForStopped(id));
      EXPECT_THAT(failure, AnyOf("", HasSubstr("there is no behavior")));
      EXPECT_THAT(signalsOf(id), failure.empty() ? "stopped" : testing::Matcher<std::string>(testing::EndsWith(failure + ", stopped")));
    }
  }
}

TEST_F(InstanceTest, OneLineTellsEveryStartAndEndOnceAndInOrderWithOnWhoseBehalf)
{
  const auto service = broker->session()->service("ZBFrameManager").value();
  TestSupport::Journal heard;
  for (const auto* signal : {"instanceStarted", "behaviorFailed", "instanceEnded", "behaviorStopped"})
    service
        .connectValues(signal,
                       [&heard, signal](const vu::Value& values)
                       {
                         auto text = values.dump();
                         std::erase(text, '"');
                         heard.add(std::string(signal) + " " + text);
                       })
        .value();
  const auto as = [this](const char* name, void (ZBFrameManager::*method)(const std::string&), const std::string& id)
  {
    const vu::CallerScope caller(name);
    std::invoke(method, manager, id);
  };
  for (const std::string steps : {"", "<fail reason=\"no arm\"/>", "<wait seconds=\"1000\"/>"})
  {
    const auto id = create(steps);
    as("alice", &ZBFrameManager::playBehavior, id);
    if (id == "fm-3")
      as("bob", &ZBFrameManager::deleteBehavior, id);
    outcome(manager->waitForStopped(id));
  }
  as("bob", &ZBFrameManager::deleteBehavior, create(""));
  as("alice", &ZBFrameManager::playBehavior, create("<wait seconds=\"1000\"/>"));
  broker->removeModule("ZBFrameManager");
  service.delivered().wait();
  EXPECT_THAT(heard.lines(),
              ElementsAre("instanceStarted [fm-1,demo/t,alice]", "instanceEnded [fm-1,demo/t,finished,,,]", "behaviorStopped [fm-1]",
                          "instanceStarted [fm-2,demo/t,alice]", "behaviorFailed [fm-2,fail (behavior.xar:2),no arm]",
                          "instanceEnded [fm-2,demo/t,failed,fail (behavior.xar:2),no arm,]", "behaviorStopped [fm-2]",
                          "instanceStarted [fm-3,demo/t,alice]", "instanceEnded [fm-3,demo/t,stopped,,,bob]", "behaviorStopped [fm-3]",
                          "instanceEnded [fm-4,demo/t,stopped,,,bob]", "behaviorStopped [fm-4]", "instanceStarted [fm-5,demo/t,alice]",
                          "instanceEnded [fm-5,demo/t,shutdown,,,]", "behaviorStopped [fm-5]"));
}

} // namespace ZB::FrameManager
