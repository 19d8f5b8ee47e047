#include <string>

#include <gtest/gtest.h>

#include "outbox.hpp"

using Tarvik::Outbox;

TEST(Outbox, WakesItsWriterOnceForAllThatComesBeforeItTakes)
{
  int woken = 0;
  Outbox outbox(10, 1000, [&woken] { ++woken; });
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
  int woken = 0;
  Outbox few(2, 1000, [&woken] { ++woken; });
  Outbox small(10, 5, [] {});
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

  Outbox closed(10, 1000, [] {});
  const auto slot = closed.reserve();
  closed.close();
  closed.fill(slot, "a");
  closed.push("b");
  EXPECT_EQ(closed.take(), std::nullopt);
}
