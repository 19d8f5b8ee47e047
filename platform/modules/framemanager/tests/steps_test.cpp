#include "framemanagerfixture.hpp"

#include <future>

using testing::ElementsAre;
using testing::HasSubstr;

namespace ZB::FrameManager
{

namespace
{

std::string note(const std::string& text) { return "<call service=\"Robot\" method=\"note\" arguments='[\"" + text + "\"]'/>"; }

const std::string hold = "<call service=\"Robot\" method=\"hold\"/>";

} // namespace

class StepsTest : public FrameManagerTest
{
};

TEST_F(StepsTest, StepsRunOneAfterAnother)
{
  EXPECT_EQ(run(note("a") + "<sequence>" + note("b") + "<sequence/>" + note("c") + "</sequence><wait seconds=\"0.01\"/>" + note("d")), "");
  EXPECT_THAT(robot->notes(), ElementsAre("a", "b", "c", "d"));
}

TEST_F(StepsTest, AnEmptyProjectEndsAtOnce)
{
  const auto id = play("");
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  EXPECT_EQ(signalsOf(id), "stopped");
}

TEST_F(StepsTest, EventDeclaresRaisesAndKeepsItsValue)
{
  const auto memory = broker->getProxy("ZBMemory");
  EXPECT_EQ(run("<event key=\"Demo/Hello\" value='{\"n\": 1}'/><event key=\"Demo/Hello\" value=\"twice\"/>"), "");
  EXPECT_THAT(memory->call<std::vector<std::string>>("getEventList"), testing::Contains("Demo/Hello"));
  EXPECT_EQ(memory->call<vu::Value>("getData", std::string("Demo/Hello")), "twice");
}

TEST_F(StepsTest, WaitTakesItsTime)
{
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(run("<wait seconds=\"0.05\"/>"), "");
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
}

TEST_F(StepsTest, RepeatRunsAsOftenAsItSays)
{
  for (const auto& [count, times] : std::map<std::string, std::size_t>{{"0", 0}, {"1", 1}, {"3", 3}})
  {
    SCOPED_TRACE(count);
    const auto before = robot->notes().size();
    EXPECT_EQ(run("<repeat count=\"" + count + "\"><repeat count=\"2\">" + note("x") + "</repeat></repeat>"), "");
    EXPECT_EQ(robot->notes().size() - before, 2 * times);
  }
}

TEST_F(StepsTest, ALongRepeatOfInstantStepsNeitherNestsNorKeepsOthersWaiting)
{
  const auto busy = play("<repeat><repeat count=\"1000000000\"><sequence/></repeat></repeat>");
  const auto alsoBusy = play("<repeat><parallel/></repeat>");
  const auto third = play("<repeat><wait seconds=\"0\"/></repeat>");
  EXPECT_EQ(run("<repeat count=\"20000\"><sequence/></repeat>" + note("done")), "");
  EXPECT_THAT(robot->notes(), ElementsAre("done"));
  for (const auto& id : {busy, alsoBusy, third})
  {
    EXPECT_TRUE(holds(id));
    manager->deleteBehavior(id);
    EXPECT_EQ(signalsOf(id), "stopped");
  }
}

TEST_F(StepsTest, ParallelEndsWhenAllBranchesHaveEnded)
{
  const auto id =
      play("<parallel>" + hold + "<sequence>" + note("a") + note("b") + "</sequence><wait seconds=\"0.01\"/></parallel>" + note("after"));
  ASSERT_TRUE(robot->waitForHeld(1));
  ASSERT_TRUE(robot->waitForNotes(2));
  EXPECT_TRUE(holds(id));
  robot->release();
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  EXPECT_THAT(robot->notes(), ElementsAre("a", "b", "after"));
}

TEST_F(StepsTest, AFailureInParallelStopsTheOtherBranchesAndIsTheOutcome)
{
  const auto id = play(
      "<parallel>\n<wait seconds=\"1000\"/>\n<repeat><wait seconds=\"0.001\"/></repeat>\n" + hold +
      "\n<run command=\"sleep 1000\"/>\n<sequence><wait seconds=\"0.05\"/><fail reason=\"no arm\"/></sequence></parallel>" + note("never"));
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "no arm");
  EXPECT_EQ(signalsOf(id), "failed stopped");
  EXPECT_EQ(reportsOf(id).at(0).step, "fail (behavior.xar:7)");
  EXPECT_THAT(robot->notes(), ElementsAre());
}

TEST_F(StepsTest, LogWritesTheMessageWithTheBehaviorsName)
{
  const vu::log::Capture capture;
  EXPECT_EQ(run("<log message=\"waving\"/>"), "");
  EXPECT_EQ(capture.count(vu::log::Level::Info, "demo/t: waving"), 1u);
}

TEST_F(StepsTest, AStepThatFailsNamesItselfItsPlaceAndTheReason)
{
  struct Case
  {
    std::string step;
    std::string title;
    std::string message;
  };
  const Case cases[] = {
      {"<fail reason=\"no arm\"/>", "fail (behavior.xar:3)", "no arm"},
      {"<call service=\"Robot\" method=\"refuse\"/>", "call Robot.refuse (behavior.xar:3)", "Robot.refuse: the arm is stuck"},
      {"<call service=\"Nobody\" method=\"x\"/>", "call Nobody.x (behavior.xar:3)", "Nobody.x: there is no service Nobody"},
      {"<call service=\"Robot\" method=\"dance\"/>", "call Robot.dance (behavior.xar:3)", "no method dance"},
      {"<call service=\"Robot\" method=\"note\"/>", "call Robot.note (behavior.xar:3)", "takes 1 argument"},
      {"<call service=\"Robot\" method=\"note\" arguments=\"[1]\"/>", "call Robot.note (behavior.xar:3)", "expected string"},
      {"<run command=\"no-such-program -x\"/>", "run no-such-program (behavior.xar:3)", "cannot start no-such-program: No such file"},
  };
  for (const auto& each : cases)
  {
    SCOPED_TRACE(each.step);
    const auto id = play("<log message=\"first\"/>\n" + each.step + "\n" + note("never"));
    const auto text = outcome(manager->waitForStopped(id));
    EXPECT_THAT(text, HasSubstr(each.message));
    EXPECT_EQ(signalsOf(id), "failed stopped");
    EXPECT_EQ(reportsOf(id).at(0).step, each.title);
    EXPECT_EQ(reportsOf(id).at(0).message, text);
  }
  EXPECT_THAT(robot->notes(), ElementsAre());
}

TEST_F(StepsTest, ServicesAreCalledOnBehalfOfThePlayer)
{
  const auto id = create(note("a") + "<wait seconds=\"0\"/>" + note("b"));
  {
    const vu::CallerScope caller("tester");
    manager->playBehavior(id);
  }
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  EXPECT_THAT(robot->callers(), ElementsAre("tester", "tester"));
}

TEST_F(StepsTest, ACallThatStaysOpenHoldsNoThread)
{
  std::vector<std::string> ids;
  for (int i = 0; i < 100; ++i)
    ids.push_back(play(hold));
  ASSERT_TRUE(robot->waitForHeld(100));
  EXPECT_LT(broker->pool()->threadCount(), 50u);
  EXPECT_EQ(run(note("meanwhile")), "");
  robot->release();
  for (const auto& id : ids)
    EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
}

TEST_F(StepsTest, AServiceThatGoesAwayFailsTheCall)
{
  const auto id = play("<repeat>" + note("x") + "</repeat>");
  ASSERT_TRUE(robot->waitForNotes(3));
  broker->removeModule("Robot");
  EXPECT_THAT(outcome(manager->waitForStopped(id)), HasSubstr("there is no service Robot"));
}

} // namespace ZB::FrameManager
