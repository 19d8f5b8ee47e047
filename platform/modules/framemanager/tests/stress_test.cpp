#include "framemanagerfixture.hpp"

#include <latch>
#include <thread>

namespace ZB::FrameManager
{

class StressTest : public FrameManagerTest
{
protected:
  static std::size_t threadsOfThisProcess()
  {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
  }
};

TEST_F(StressTest, AFailureIsAlwaysSignalledBeforeTheStopAndBothBeforeTheOutcome)
{
  const auto file = write("behavior.xar", "<project format=\"1\"><fail reason=\"no arm\"/></project>");
  for (int i = 0; i < 1000; ++i)
  {
    const auto id = manager->createBehavior(directory.string(), file, "demo/fail");
    const auto stopped = manager->waitForStopped(id);
    manager->playBehavior(id);
    ASSERT_EQ(outcome(stopped), "no arm");
    ASSERT_EQ(signalsOf(id), "failed stopped");
    std::lock_guard lock(mutex);
    reports.clear();
  }
}

TEST_F(StressTest, TheLastTenThousandOutcomesAreRemembered)
{
  const auto file = write("behavior.xar", "<project format=\"1\"><fail reason=\"no arm\"/></project>");
  std::vector<std::string> ids;
  for (int i = 0; i < 10001; ++i)
  {
    ids.push_back(manager->createBehavior(directory.string(), file, "demo/fail"));
    manager->playBehavior(ids.back());
    if (i % 1000 == 0) // the first one has to end first
    {
      ASSERT_EQ(outcome(manager->waitForStopped(ids.back())), "no arm");
    }
  }
  for (std::size_t i = 1; i < ids.size(); ++i)
    ASSERT_EQ(outcome(manager->waitForStopped(ids[i])), "no arm");
  EXPECT_EQ(outcome(manager->waitForStopped(ids.front())), "");
}

TEST_F(StressTest, AThousandBehaviorsWaitOnAFewThreads)
{
  const auto before = threadsOfThisProcess();
  std::vector<std::string> ids;
  for (int i = 0; i < 500; ++i)
  {
    ids.push_back(play("<wait seconds=\"1000\"/>"));
    ids.push_back(play("<call service=\"Robot\" method=\"hold\"/>"));
  }
  ASSERT_TRUE(robot->waitForHeld(500));
  EXPECT_EQ(manager->behaviors().size(), 1000u);
  EXPECT_LT(threadsOfThisProcess(), before + 50);
  for (const auto& id : ids)
    manager->deleteBehavior(id);
  EXPECT_TRUE(manager->behaviors().empty());
  for (const auto& id : ids)
    EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(StressTest, ADeletionThatMeetsTheEndLeavesOneEmissionAndReturns)
{
  const auto file =
      write("behavior.xar", "<project format=\"1\"><wait seconds=\"0.0002\"/><event key=\"Demo/End\" value=\"1\"/></project>");
  const auto failing = write("failing.xar", "<project format=\"1\"><wait seconds=\"0.0002\"/><fail reason=\"no arm\"/></project>");
  for (int i = 0; i < 300; ++i)
  {
    const auto id = manager->createBehavior(directory.string(), i % 2 ? file : failing, "demo/race");
    const auto stopped = manager->waitForStopped(id);
    std::latch together(3);
    const auto remove = [&]
    {
      together.arrive_and_wait();
      try
      {
        manager->deleteBehavior(id);
      }
      catch (const ZBError&)
      {
        // It had ended.
      }
      EXPECT_FALSE(holds(id));
    };
    std::thread first(remove);
    std::thread second(remove);
    manager->playBehavior(id);
    together.arrive_and_wait();
    first.join();
    second.join();
    const auto text = outcome(stopped);
    ASSERT_EQ(signalsOf(id), text.empty() ? "stopped" : "failed stopped");
    ASSERT_TRUE(text.empty() || text == "no arm") << text;
  }
}

TEST_F(StressTest, ManyProgramsStartedAndStoppedLeaveNoneBehind)
{
  std::vector<std::string> ids;
  for (int i = 0; i < 20; ++i)
  {
    ids.push_back(play("<run command=\"sleep 1000\"/>"));
    ids.push_back(play("<repeat><run command=\"true\"/></repeat>"));
  }
  std::vector<std::thread> deleters;
  for (const auto& id : ids)
    deleters.emplace_back([this, id] { EXPECT_NO_THROW(manager->deleteBehavior(id)) << reportsOf(id).front().message; });
  for (auto& deleter : deleters)
    deleter.join();
  for (const auto& id : ids)
    EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(StressTest, ClosingInTheMiddleOfEverythingEmitsEveryEndOnce)
{
  for (int round = 0; round < 10; ++round)
  {
    std::vector<std::string> ids;
    std::vector<vu::Future<void>> stopped;
    for (int i = 0; i < 30; ++i)
    {
      ids.push_back(create(i % 3 == 0   ? "<wait seconds=\"0.001\"/><fail reason=\"no arm\"/>"
                           : i % 3 == 1 ? "<repeat><event key=\"Demo/Tick\" value=\"1\"/></repeat>"
                                        : "<call service=\"Robot\" method=\"note\" arguments='[\"x\"]'/>"));
      stopped.push_back(manager->waitForStopped(ids.back()));
      manager->playBehavior(ids.back());
    }
    broker->removeModule("ZBFrameManager");
    for (std::size_t i = 0; i < ids.size(); ++i)
    {
      ASSERT_TRUE(stopped[i].isFinished());
      ASSERT_EQ(signalsOf(ids[i]), stopped[i].hasValue() ? "stopped" : "failed stopped");
    }
    {
      const std::lock_guard lock(mutex);
      reports.clear();
    }
    start(vu::Value::object());
  }
}

} // namespace ZB::FrameManager
