#include <atomic>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <behaviormanager/registry.hpp>

using namespace ZB::BehaviorManager;
using testing::ElementsAre;

TEST(BehaviorRegistry, GivesReportsToTheLastOfOverlappingStarts)
{
  Registry registry;
  registry.xSetFrameManagerId("P/a", "one");
  const auto play = registry.beginStart("P/a");
  EXPECT_EQ(registry.beginStart("P/a"), play);
  EXPECT_FALSE(registry.reportFailure(play, "the step", "no arm"));
  EXPECT_FALSE(registry.reportStop(play));
  const auto early = registry.endStart(play);
  EXPECT_FALSE(early.failure || early.stopped) << "the other start is not over";
  auto reports = registry.endStart(play);
  ASSERT_TRUE(reports.failure);
  EXPECT_EQ(reports.failure->second + ": " + reports.failure->third, "the step: no arm");
  EXPECT_FALSE(reports.stopped) << "the stop overtakes the failure";
  EXPECT_FALSE(registry.reportStop(play)) << "while the failure is being announced";
  reports = registry.endStart(play);
  EXPECT_FALSE(reports.failure);
  EXPECT_TRUE(reports.stopped);
  EXPECT_TRUE(registry.reportFailure(play, "", ""));
}

TEST(BehaviorRegistry, KeepsTheLinksOfAnInstanceUntilItsPlayIsClosed)
{
  const auto none = vu::SignalBase::invalidSignalLink;
  Registry registry;
  registry.xSetFrameManagerId("P/a", "one");
  const auto first = registry.beginStart("P/a");
  registry.xSetBehaviorLinks("P/a", 1, 2);
  registry.xSetFrameManagerId("P/a", "two");
  EXPECT_EQ(registry.behaviorOf("one"), std::nullopt);
  EXPECT_EQ(registry.xBehaviorStoppedLink("P/a"), none);
  const auto second = registry.beginStart("P/a");
  registry.xSetBehaviorLinks("P/a", 3, 4);
  EXPECT_THAT(registry.close(first), ElementsAre(1, 2));
  EXPECT_THAT(registry.close(first), ElementsAre(none, none));
  EXPECT_EQ(registry.xBehaviorFailedLink("P/a"), 4U);
  EXPECT_THAT(registry.clear(), ElementsAre(ElementsAre(3, 4)));
  EXPECT_FALSE(registry.isOpen(second));
}

TEST(BehaviorRegistry, TheEndOfAnInstanceNeverTakesTheNextOneWithIt)
{
  constexpr int instances = 30000;
  Registry registry;
  registry.xSetFrameManagerId("P/a", "0");
  std::atomic<int> ended = 0;
  std::thread reporter(
      [&]
      {
        while (ended < instances)
          if (const auto id = std::to_string(ended); registry.xFrameManagerId("P/a") == id)
            registry.endInstance("P/a", id);
      });
  int lost = 0;
  for (int last = 0; last < instances; ++last)
  {
    ended = last;
    const auto next = std::to_string(last + 1);
    registry.xSetFrameManagerId("P/a", next);
    lost += registry.xFrameManagerId("P/a") != next;
  }
  ended = instances;
  reporter.join();
  EXPECT_EQ(lost, 0);
}
