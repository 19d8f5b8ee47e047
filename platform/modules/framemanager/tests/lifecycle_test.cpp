#include "framemanagerfixture.hpp"

#include <future>
#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;

namespace ZB::FrameManager
{

namespace
{

const std::string hold = "<call service=\"Robot\" method=\"hold\"/>";

std::string deletion(const std::string& id)
{
  return "<call service=\"ZBFrameManager\" method=\"deleteBehavior\" arguments='[\"" + id + "\"]'/>";
}

} // namespace

class LifecycleTest : public FrameManagerTest
{
protected:
  template <typename F> static std::string refusal(F function)
  {
    try
    {
      function();
      return "none";
    }
    catch (const ZBError& error)
    {
      return error.module() + "." + error.method() + ": " + error.description();
    }
  }
};

TEST_F(LifecycleTest, ALoadThatFailsNamesFileAndPlaceAndLeavesNothing)
{
  const auto file = write("broken/behavior.xar", "<project format=\"1\">\n<wait seconds=\"-1\"/></project>");
  EXPECT_THAT(refusal([&] { manager->createBehavior(directory.string(), file, "x"); }),
              testing::AllOf(HasSubstr("ZBFrameManager.createBehavior: "), HasSubstr("broken/behavior.xar:2 (offset 21): ")));
  EXPECT_THAT(refusal([&] { manager->createBehavior("", file, "x"); }), HasSubstr("absolute"));
  EXPECT_THAT(refusal([&] { manager->createBehavior("packages/x", file, "x"); }), HasSubstr("absolute"));
  EXPECT_THAT(refusal([&] { manager->createBehavior(directory.string(), "../x", "x"); }), HasSubstr("outside"));
  EXPECT_TRUE(manager->behaviors().empty());
}

TEST_F(LifecycleTest, IdsAreNeverUsedAgain)
{
  std::set<std::string> ids;
  for (int i = 0; i < 50; ++i)
  {
    const auto id = create("");
    ids.insert(id);
    manager->deleteBehavior(id);
  }
  EXPECT_EQ(ids.size(), 50u);
  EXPECT_TRUE(manager->behaviors().empty());
}

TEST_F(LifecycleTest, AnInstanceIsPlayedOnceAndUnknownIdsAreRefused)
{
  const auto id = play(hold);
  EXPECT_EQ(refusal([&] { manager->playBehavior(id); }), "ZBFrameManager.playBehavior: the behavior " + id + " is playing already");
  EXPECT_THAT(refusal([&] { manager->playBehavior("fm-x"); }), HasSubstr("ZBFrameManager.playBehavior: there is no behavior fm-x"));
  EXPECT_THAT(refusal([&] { manager->deleteBehavior("fm-x"); }), HasSubstr("ZBFrameManager.deleteBehavior: there is no behavior fm-x"));
  manager->deleteBehavior(id);
  EXPECT_THAT(refusal([&] { manager->deleteBehavior(id); }), HasSubstr("there is no behavior"));
  EXPECT_THAT(refusal([&] { manager->playBehavior(id); }), HasSubstr("there is no behavior"));
  EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(LifecycleTest, TheOutcomeIsRememberedAfterTheEnd)
{
  const auto good = play("");
  const auto bad = play("<fail reason=\"no arm\"/>");
  EXPECT_EQ(outcome(manager->waitForStopped(good)), "");
  EXPECT_EQ(outcome(manager->waitForStopped(bad)), "no arm");
  EXPECT_TRUE(manager->behaviors().empty());
  for (int i = 0; i < 2; ++i)
  {
    EXPECT_TRUE(manager->waitForStopped(good).isFinished());
    EXPECT_TRUE(manager->waitForStopped(bad).isFinished());
    EXPECT_EQ(outcome(manager->waitForStopped(bad)), "no arm");
  }
  EXPECT_TRUE(manager->waitForStopped("never heard of").hasValue());
}

TEST_F(LifecycleTest, TheEndIsSignalledOffTheListAndBeforeAnyWaiterHearsOfIt)
{
  for (const std::string steps : {"", "<fail reason=\"no arm\"/>"})
  {
    SCOPED_TRACE(steps);
    const auto id = create(steps);
    const auto early = manager->waitForStopped(id);
    std::promise<vu::Future<void>> seen;
    bool inOrder = true;
    const auto watch = [&, id](const std::string& ended)
    {
      if (ended == id)
        inOrder = inOrder && !holds(id) && !early.isFinished() && !manager->waitForStopped(id).isFinished();
    };
    const auto failed =
        manager->behaviorFailed.connect([&](const std::string& ended, const std::string&, const std::string&) { watch(ended); });
    const auto stopped = manager->behaviorStopped.connect(
        [&](const std::string& ended)
        {
          watch(ended);
          if (ended == id)
            seen.set_value(manager->waitForStopped(id));
        });
    manager->playBehavior(id);
    auto between = seen.get_future().get();
    manager->behaviorFailed.disconnect(failed);
    manager->behaviorStopped.disconnect(stopped);
    EXPECT_TRUE(inOrder);
    const std::string expected = steps.empty() ? "" : "no arm";
    EXPECT_EQ(outcome(between), expected);
    EXPECT_EQ(outcome(early), expected);
  }
}

TEST_F(LifecycleTest, ACallbackMayDeleteAnyOtherInstance)
{
  const auto other = play("<run command=\"sleep 1000\"/>");
  const auto unplayed = create("");
  std::promise<void> done;
  std::string first;
  manager->behaviorStopped.connect(
      [&](const std::string& id)
      {
        if (id != first)
          return;
        manager->deleteBehavior(other);
        manager->deleteBehavior(unplayed);
        EXPECT_THROW(manager->deleteBehavior(id), ZBError);
        done.set_value();
      });
  first = create("");
  manager->playBehavior(first);
  ASSERT_EQ(done.get_future().wait_for(patience), std::future_status::ready);
  EXPECT_EQ(outcome(manager->waitForStopped(first)), "");
  EXPECT_EQ(signalsOf(other), "stopped");
  EXPECT_EQ(signalsOf(unplayed), "stopped");
}

TEST_F(LifecycleTest, DeletionStopsWhateverAStepWaitsFor)
{
  std::size_t begun = 0;
  for (const std::string& step : {std::string("<wait seconds=\"1000\"/>"), hold, std::string("<run command=\"sleep 1000\"/>"),
                                  std::string("<repeat><wait seconds=\"0\"/></repeat>"),
                                  "<parallel><wait seconds=\"1000\"/>" + hold + "<run command=\"sleep 1000\"/></parallel>"})
  {
    SCOPED_TRACE(step);
    // The note is made once the step that waits has begun.
    const auto id = play("<parallel>" + step + "<call service=\"Robot\" method=\"note\" arguments='[\"begun\"]'/></parallel>" +
                         "<call service=\"Robot\" method=\"note\" arguments='[\"never\"]'/>");
    const auto stopped = manager->waitForStopped(id);
    ASSERT_TRUE(robot->waitForNotes(++begun));
    EXPECT_FALSE(stopped.isFinished());
    manager->deleteBehavior(id);
    EXPECT_TRUE(stopped.isFinished());
    EXPECT_TRUE(stopped.hasValue());
    EXPECT_FALSE(holds(id));
    EXPECT_EQ(signalsOf(id), "stopped");
  }
  EXPECT_THAT(robot->notes(), testing::Not(testing::Contains("never")));
}

TEST_F(LifecycleTest, ADeletedInstanceThatWasNotPlayedCountsAsStopped)
{
  const auto id = create("");
  const auto stopped = manager->waitForStopped(id);
  EXPECT_FALSE(stopped.isFinished());
  manager->deleteBehavior(id);
  EXPECT_TRUE(stopped.isFinished());
  EXPECT_TRUE(stopped.hasValue());
  EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(LifecycleTest, ABehaviorMayDeleteItself)
{
  // The first instance of this manager gets the first id.
  const auto id = create(deletion("fm-1") + "<repeat><wait seconds=\"0.001\"/></repeat>");
  ASSERT_EQ(id, "fm-1");
  manager->playBehavior(id);
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(LifecycleTest, TwoBehaviorsMayDeleteEachOther)
{
  for (int round = 0; round < 50; ++round)
  {
    const auto number = 2 * round;
    const std::string first = "fm-" + std::to_string(number + 1);
    const std::string second = "fm-" + std::to_string(number + 2);
    ASSERT_EQ(create("<parallel>" + deletion(second) + "<wait seconds=\"0.002\"/></parallel>"), first);
    ASSERT_EQ(create("<parallel>" + deletion(first) + "<wait seconds=\"0.002\"/></parallel>"), second);
    manager->playBehavior(first);
    // One may come too late to find the other, which then is its failure.
    EXPECT_THAT(refusal([&] { manager->playBehavior(second); }), testing::AnyOf("none", HasSubstr("there is no behavior")));
    for (const auto& id : {first, second})
    {
      EXPECT_THAT(outcome(manager->waitForStopped(id)), testing::AnyOf("", HasSubstr("there is no behavior")));
      EXPECT_THAT(signalsOf(id), testing::AnyOf("stopped", "failed stopped"));
    }
  }
}

TEST_F(LifecycleTest, ClosingEndsAllAndCompletesEveryWait)
{
  const auto unplayed = create("");
  const auto waiting = play("<wait seconds=\"1000\"/>");
  const auto calling = play(hold);
  const auto running = play("<run command=\"sleep 1000\"/>");
  ASSERT_TRUE(robot->waitForHeld(1));
  std::vector<vu::Future<void>> stopped;
  for (const auto& id : {unplayed, waiting, calling, running})
    stopped.push_back(manager->waitForStopped(id));
  broker->removeModule("ZBFrameManager");
  for (const auto& future : stopped)
  {
    EXPECT_TRUE(future.isFinished());
    EXPECT_TRUE(future.hasValue());
  }
  for (const auto& id : {unplayed, waiting, calling, running})
    EXPECT_EQ(signalsOf(id), "stopped") << id;
  robot->release(); // the answer comes too late and finds nobody
}

TEST_F(LifecycleTest, OneLineTellsEveryStartAndEndOnceAndInOrderWithOnWhoseBehalf)
{
  const auto service = broker->session()->service("ZBFrameManager").value();
  std::vector<std::string> heard; // touched in the line, and when it is empty
  for (const auto* signal : {"instanceStarted", "behaviorFailed", "instanceEnded", "behaviorStopped"})
    service
        .connectValues(signal,
                       [&heard, signal](const vu::Value& values)
                       {
                         auto text = values.dump();
                         std::erase(text, '"');
                         heard.push_back(std::string(signal) + " " + text);
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
  EXPECT_THAT(heard,
              ElementsAre("instanceStarted [fm-1,demo/t,alice]", "instanceEnded [fm-1,demo/t,finished,,,]", "behaviorStopped [fm-1]",
                          "instanceStarted [fm-2,demo/t,alice]", "behaviorFailed [fm-2,fail (behavior.xar:2),no arm]",
                          "instanceEnded [fm-2,demo/t,failed,fail (behavior.xar:2),no arm,]", "behaviorStopped [fm-2]",
                          "instanceStarted [fm-3,demo/t,alice]", "instanceEnded [fm-3,demo/t,stopped,,,bob]", "behaviorStopped [fm-3]",
                          "instanceEnded [fm-4,demo/t,stopped,,,bob]", "behaviorStopped [fm-4]", "instanceStarted [fm-5,demo/t,alice]",
                          "instanceEnded [fm-5,demo/t,shutdown,,,]", "behaviorStopped [fm-5]"));
}

TEST_F(LifecycleTest, TheServiceOffersItsMethodsAndSignalsByName)
{
  const auto service = broker->session()->service("ZBFrameManager").value();
  const auto description = service.description();
  std::vector<std::string> methods;
  for (const auto& method : description.methods)
    methods.push_back(method.name);
  EXPECT_THAT(methods, ElementsAre("createBehavior", "playBehavior", "_waitForStopped", "behaviors", "deleteBehavior", "_beginClosing"));
  EXPECT_TRUE(description.method("_waitForStopped")->future);

  std::promise<std::string> ended;
  const auto link = service.connect<std::string>("behaviorStopped", [&](const std::string& id) { ended.set_value(id); }).value();
  const auto id =
      service.call<std::string>("createBehavior", directory.string(),
                                write("behavior.xar", "<project format=\"1\"><fail reason=\"no arm\"/></project>"), std::string("demo"));
  EXPECT_EQ(service.call<std::set<std::string>>("behaviors").count(id), 1u);
  const auto waited = service.async<void>("_waitForStopped", id);
  service.call<void>("playBehavior", id);
  ASSERT_TRUE(waited.wait(patience));
  EXPECT_EQ(waited.error(), "no arm");
  EXPECT_EQ(ended.get_future().get(), id);
  service.disconnect(link);
}

TEST_F(LifecycleTest, AGraceThatMakesNoSenseIsRefused)
{
  for (const vu::Value& value : {vu::Value(-1), vu::Value("2 s"), vu::Value(1.5), vu::Value(10000000)})
  {
    const auto other = ZBBroker::create({{}, {{"framemanager", {{"terminateGraceMs", value}}}}});
    EXPECT_THAT(refusal([&] { other->createModule<ZBFrameManager>("ZBFrameManager"); }), HasSubstr("framemanager.terminateGraceMs"));
    other->shutdown();
  }
}

} // namespace ZB::FrameManager
