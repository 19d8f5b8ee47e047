#include "framemanagerfixture.hpp"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace ZB::FrameManager
{

class StepsTest : public FrameManagerTest
{
};

TEST_F(StepsTest, StepsRunOneAfterAnotherAndAsOftenAsTheySay)
{
  EXPECT_EQ(run(note("a") + "<sequence>" + note("b") + "<sequence/>" + note("c") + "</sequence><wait seconds=\"0.01\"/>" + note("d")), "");
  EXPECT_THAT(robot->notes.lines(), ElementsAre("a", "b", "c", "d"));
  for (const auto& [count, times] : {std::pair("0", 0u), {"1", 2u}, {"3", 6u}})
  {
    robot->notes.clear();
    EXPECT_EQ(run(std::string("<repeat count=\"") + count + "\"><repeat count=\"2\">" + note("x") + "</repeat></repeat>"), "");
    EXPECT_EQ(robot->notes.lines().size(), times);
  }
}

TEST_F(StepsTest, EventDeclaresRaisesAndKeepsItsValue)
{
  const auto memory = broker->getProxy("ZBMemory");
  EXPECT_EQ(run("<event key=\"Demo/Hello\" value='{\"n\": 1}'/><event key=\"Demo/Hello\" value=\"twice\"/>"), "");
  EXPECT_THAT(memory->call<std::vector<std::string>>("getEventList"), ElementsAre("Demo/Hello"));
  EXPECT_EQ(memory->call<vu::Value>("getData", std::string("Demo/Hello")), "twice");
}

TEST_F(StepsTest, ALongRepeatOfInstantStepsNeitherNestsNorKeepsOthersWaiting)
{
  std::vector<std::string> busy;
  for (const auto* steps : {"<repeat><repeat count=\"1000000000\"><sequence/></repeat></repeat>", "<repeat><parallel/></repeat>",
                            "<repeat><wait seconds=\"0\"/></repeat>"})
    busy.push_back(play(steps));
  EXPECT_EQ(run("<repeat count=\"20000\"><sequence/></repeat>" + note("done")), "");
  EXPECT_THAT(robot->notes.lines(), ElementsAre("done"));
  for (const auto& id : busy)
  {
    EXPECT_TRUE(holds(id));
    manager->deleteBehavior(id);
    EXPECT_EQ(signalsOf(id), "stopped");
  }
}

TEST_F(StepsTest, ParallelEndsWhenAllBranchesHaveEnded)
{
  const auto id = play("<parallel>" + hold + "<sequence>" + note("a") + note("b") + "</sequence></parallel>" + note("after"));
  robot->held.waitForCount(1);
  robot->notes.waitForCount(2);
  EXPECT_TRUE(holds(id));
  robot->release();
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  EXPECT_THAT(robot->notes.lines(), ElementsAre("a", "b", "after"));
}

TEST_F(StepsTest, AFailureInParallelStopsTheOtherBranchesAndIsTheOutcome)
{
  const auto id = play(
      "<parallel>\n<wait seconds=\"1000\"/>\n<repeat><wait seconds=\"0.001\"/></repeat>\n" + hold +
      "\n<run command=\"sleep 1000\"/>\n<sequence><wait seconds=\"0.05\"/><fail reason=\"no arm\"/></sequence></parallel>" + note("never"));
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "no arm");
  EXPECT_EQ(signalsOf(id), "failed fail (behavior.xar:7): no arm, stopped");
  EXPECT_THAT(robot->notes.lines(), IsEmpty());
}

TEST_F(StepsTest, AStepThatFailsNamesItselfItsPlaceAndTheReason)
{
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"<fail reason=\"no arm\"/>", "fail", "no arm"},
      {"<call service=\"Robot\" method=\"refuse\"/>", "call Robot.refuse", "Robot.refuse: the arm is stuck"},
      {"<call service=\"Nobody\" method=\"x\"/>", "call Nobody.x", "Nobody.x: there is no service Nobody"},
      {"<call service=\"Robot\" method=\"dance\"/>", "call Robot.dance", "no method dance"},
      {"<call service=\"Robot\" method=\"note\"/>", "call Robot.note", "takes 1 argument"},
      {"<call service=\"Robot\" method=\"note\" arguments=\"[1]\"/>", "call Robot.note", "expected string"},
      {"<run command=\"no-such-program -x\"/>", "run no-such-program", "cannot start no-such-program: No such file"},
  };
  for (const auto& [step, title, reason] : cases)
  {
    const auto id = play(std::string("<log message=\"first\"/>\n") + step + "\n" + note("never"));
    const auto text = outcome(manager->waitForStopped(id));
    EXPECT_THAT(text, HasSubstr(reason));
    EXPECT_EQ(signalsOf(id), std::string("failed ") + title + " (behavior.xar:3): " + text + ", stopped");
  }
  EXPECT_THAT(robot->notes.lines(), IsEmpty());
}

TEST_F(StepsTest, AServiceThatGoesAwayFailsTheCall)
{
  const auto id = play("<repeat>" + note("x") + "</repeat>");
  robot->notes.waitForCount(3);
  broker->removeModule("Robot");
  EXPECT_THAT(outcome(manager->waitForStopped(id)), HasSubstr("there is no service Robot"));
}

} // namespace ZB::FrameManager
