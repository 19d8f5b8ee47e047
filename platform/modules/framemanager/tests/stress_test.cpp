#include "framemanagerfixture.hpp"

#include <latch>
#include <thread>

namespace ZB::FrameManager
{

class StressTest : public FrameManagerTest
{
protected:
  static std::size_t threadsOfThisProcess() { return TestSupport::namesIn("/proc/self/task").size(); }

  std::string playFile(const std::string& file) const
  {
    const auto id = manager->createBehavior(directory.string(), file, "demo/t");
    manager->playBehavior(id);
    return id;
  }
  const std::string failing = write("failing.xar", TestSupport::project("<fail reason=\"no arm\"/>"));
};

TEST_F(StressTest, AFailureIsAlwaysSignalledBeforeTheStopAndBothBeforeTheOutcome)
{
  for (int i = 0; i < 1000; ++i)
  {
    const auto id = playFile(failing);
    ASSERT_EQ(outcome(manager->waitForStopped(id)), "no arm");
    ASSERT_EQ(signalsOf(id), "failed fail (failing.xar:2): no arm, stopped");
    signals.clear();
  }
}

TEST_F(StressTest, TheLastTenThousandOutcomesAreRemembered)
{
  std::vector<std::string> ids;
  for (int i = 0; i < 10001; ++i)
  {
    ids.push_back(playFile(failing));
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
    ids.push_back(play("<wait seconds=\"1000\"/>", "wait.xar"));
    ids.push_back(play(hold, "hold.xar"));
  }
  ASSERT_EQ(robot->held.waitForCount(500).size(), 500u);
  EXPECT_EQ(manager->behaviors().size(), 1000u);
  EXPECT_LT(threadsOfThisProcess(), before + 50);
  EXPECT_EQ(run(note("meanwhile")), "");
  for (const auto& id : ids)
    manager->deleteBehavior(id);
  EXPECT_TRUE(manager->behaviors().empty());
  for (const auto& id : ids)
    ASSERT_EQ(signalsOf(id), "stopped");
}

TEST_F(StressTest, ADeletionThatMeetsTheEndLeavesOneEmissionAndReturns)
{
  for (int i = 0; i < 300; ++i)
  {
    const auto id =
        create(std::string("<wait seconds=\"0.0002\"/>") + (i % 2 ? "<event key=\"Demo/End\" value=\"1\"/>" : "<fail reason=\"no arm\"/>"));
    const auto stopped = manager->waitForStopped(id);
    std::latch together(3);
    const auto remove = [&]
    {
      together.arrive_and_wait();
      errorOf([&] { manager->deleteBehavior(id); }); // it may have ended
      EXPECT_FALSE(holds(id));
    };
    std::thread one(remove);
    std::thread other(remove);
    manager->playBehavior(id);
    together.arrive_and_wait();
    one.join();
    other.join();
    const auto text = outcome(stopped);
    ASSERT_EQ(signalsOf(id), text.empty() ? "stopped" : "failed fail (behavior.xar:2): no arm, stopped");
    signals.clear();
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
  EXPECT_GE(processes().size(), 20u);
  std::vector<std::thread> deleters;
  for (const auto& id : ids)
    deleters.emplace_back([this, id] { EXPECT_NO_THROW(manager->deleteBehavior(id)) << signalsOf(id); });
  for (auto& deleter : deleters)
    deleter.join();
  EXPECT_EQ(processes(), std::set<pid_t>());
  for (const auto& id : ids)
    EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(StressTest, ClosingInTheMiddleOfEverythingEmitsEveryEndOnce)
{
  const std::vector<std::string> kinds{"<wait seconds=\"0.001\"/><fail reason=\"no arm\"/>",
                                       "<repeat><event key=\"Demo/Tick\" value=\"1\"/></repeat>", note("x"), hold};
  for (int round = 0; round < 10; ++round)
  {
    std::map<std::string, vu::Future<void>> stopped;
    for (std::size_t i = 0; i < 40; ++i)
    {
      const auto id = create(kinds[i % kinds.size()]);
      stopped.emplace(id, manager->waitForStopped(id));
      if (i != 0) // that one is never played
        manager->playBehavior(id);
    }
    broker->removeModule("ZBFrameManager");
    for (const auto& [id, future] : stopped)
    {
      ASSERT_TRUE(future.isFinished());
      ASSERT_EQ(signalsOf(id), future.hasValue() ? "stopped" : "failed fail (behavior.xar:2): no arm, stopped");
    }
    robot->release(); // the answer comes too late and finds nobody
    signals.clear();
    start(vu::Value::object());
  }
}

} // namespace ZB::FrameManager
