#include <string>

#include <gtest/gtest.h>

#include "outbox.hpp"

using Tarvik::Backlog;
using Tarvik::Outbox;

TEST(Outbox, WakesItsWriterOnceForAllThatComesBeforeItTakes)
{
  const auto backlog = std::make_shared<Backlog>(1 << 20);
  int woken = 0;
  Outbox outbox(10, 1000, backlog, [&woken] { ++woken; });
  outbox.push("a");
  outbox.push("b");
  EXPECT_EQ(woken, 1);
  EXPECT_EQ(outbox.take(), "a");
  EXPECT_EQ(outbox.take(), "b");
  outbox.push("c");
  EXPECT_EQ(woken, 1) << "the writer has not been told yet that nothing is left";
  EXPECT_EQ(outbox.take(), "c");
  EXPECT_EQ(outbox.take(), std::nullopt);
  outbox.push("d");
  EXPECT_EQ(woken, 2);
}

TEST(Outbox, HoldsNothingOnceItHasOverflowedByNumberOrBytesOrIsClosed)
{
  const auto backlog = std::make_shared<Backlog>(1 << 20);
  int woken = 0;
  Outbox few(2, 1000, backlog, [&woken] { ++woken; });
  Outbox small(10, 5, backlog, [] {});
  for (int i = 0; i < 3; ++i)
    few.push("x");
  EXPECT_TRUE(few.overflowed());
  EXPECT_EQ(woken, 2) << "the writer has to learn of it";
  EXPECT_EQ(few.take(), std::nullopt);
  few.push("y");
  EXPECT_EQ(few.take(), std::nullopt);

  small.push("1234");
  small.push("5");
  EXPECT_FALSE(small.overflowed());
  small.take();
  small.push("6789");
  EXPECT_FALSE(small.overflowed()) << "what was taken counts no more";
  small.push("0");
  EXPECT_TRUE(small.overflowed());

  Outbox closed(10, 1000, backlog, [] {});
  const auto slot = closed.reserve();
  closed.close();
  closed.fill(slot, "a");
  closed.push("b");
  EXPECT_EQ(closed.take(), std::nullopt);
}

TEST(Outbox, OfManyTheOneThatHoldsMostIsDroppedWhenAllTogetherHoldTooMuch)
{
  const auto backlog = std::make_shared<Backlog>(10000);
  int woken = 0;
  Outbox most(100, 100000, backlog, [&woken] { ++woken; });
  Outbox less(100, 100000, backlog, [] {});
  most.push("small");
  ASSERT_EQ(most.take(), "small");
  most.push(std::string(6000, 'x'));
  EXPECT_EQ(most.take()->size(), 6000u) << "what is being sent still waits";
  EXPECT_EQ(woken, 1);
  less.pushAnswer(std::string(3000, 'x'));
  EXPECT_FALSE(most.overflowed());
  less.push(std::string(2000, 'x'));
  EXPECT_TRUE(most.overflowed());
  EXPECT_EQ(woken, 2) << "its writer has to learn of it";
  EXPECT_FALSE(less.overflowed());
  EXPECT_EQ(less.answerBytes(), 3000u);
  less.take();
  EXPECT_EQ(less.answerBytes(), 3000u) << "until it has been sent";
  less.take();
  EXPECT_EQ(less.answerBytes(), 0u);
  less.push(std::string(6000, 'x'));
  EXPECT_FALSE(less.overflowed()) << "what was dropped and what was sent count no more";
}
