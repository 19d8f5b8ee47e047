#include <atomic>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include <vu/future.hpp>

#include <testing/waiting.hpp>

using namespace std::chrono_literals;
using vu::Future;
using vu::Promise;
using vu::ThreadPool;

TEST(Future, ContinuationRunsOnThePoolAfterTheCallThatCompletes)
{
  // With one thread, anything that ran inside a call would show in the order.
  const auto pool = std::make_shared<ThreadPool>(ThreadPool::Limits{1, 16, 64, 1s});
  for (const bool completeFirst : {true, false})
    for (const bool fails : {true, false})
    {
      SCOPED_TRACE(std::string(completeFirst ? "complete already" : "completed later") + (fails ? ", error" : ", value"));
      std::string order;
      pool->post(
          [&]
          {
            const Promise<int> promise(pool);
            const auto complete = [&] { EXPECT_TRUE(fails ? promise.setError("no") : promise.setValue(5)); };
            if (completeFirst)
              complete();
            promise.future().then([&](const Future<int>& future)
                                  { order += future.hasError() ? future.error() : std::to_string(future.value()); });
            order += "attached ";
            if (!completeFirst)
              complete();
            order += "completed ";
          });
      pool->waitUntilIdle();
      EXPECT_EQ(order, std::string("attached completed ") + (fails ? "no" : "5"));
    }
  pool->close();
}

TEST(Future, FailsWithItsWholeChainWhenTheLastHandleOfItsPromiseDies)
{
  std::optional<Promise<int>> promise(std::in_place), copy(promise);
  std::optional<Promise<void>> end(std::in_place);
  const auto future = promise->future();
  const auto chained = end->future();
  future.forward(*end, [](int) {});
  end.reset();
  promise.reset();
  EXPECT_FALSE(future.isFinished() || chained.isFinished());
  copy.reset();
  ASSERT_TRUE(future.isFinished() && chained.isFinished() && chained.hasError());
  EXPECT_THROW(future.value(), std::runtime_error);
  EXPECT_NE(future.error().find("given up"), std::string::npos);
}

TEST(Future, OneOfManyConcurrentResultsStays)
{
  for (int round = 0; round < 200; ++round)
  {
    const Promise<int> promise;
    std::atomic<int> winner{-1}, winners{0};
    TestSupport::Event continued(3);
    {
      const std::jthread attaching(
          [&]
          {
            for (int i = 0; i < 3; ++i)
              promise.future().then([&](const auto&) { continued.set(); });
          });
      std::vector<std::jthread> completing;
      for (int i = 0; i < 3; ++i)
        completing.emplace_back(
            [&, i]
            {
              if (i == 2 ? promise.setError("2") : promise.setValue(i))
                winner = i, ++winners;
            });
    }
    ASSERT_TRUE(continued.wait());
    ASSERT_EQ(winners, 1);
    const auto future = promise.future();
    ASSERT_EQ(future.hasError() ? future.error() : std::to_string(future.value()), std::to_string(winner));
    ThreadPool::process()->waitUntilIdle(); // the last continuation may still be about to leave the event
  }
}
