#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <vu/error.hpp>
#include <vu/future.hpp>
#include <vu/log.hpp>

#include "waiting.hpp"

using namespace std::chrono_literals;
using vu::Future;
using vu::Promise;
using vu::ThreadPool;

namespace
{
std::shared_ptr<ThreadPool> makePool(std::size_t threads) { return std::make_shared<ThreadPool>(ThreadPool::Limits{threads, 16, 64, 1s}); }
} // namespace

TEST(Future, ContinuationRunsOnThePoolAfterTheCallThatCompletes)
{
  const auto pool = makePool(1);
  for (const bool completeFirst : {true, false})
    for (const bool fails : {true, false})
    {
      SCOPED_TRACE(std::string(completeFirst ? "complete already" : "completed later") + (fails ? ", error" : ", value"));
      // With one thread, anything that ran inside a call would show in the order.
      std::vector<std::string> order;
      pool->post(
          [&]
          {
            const Promise<int> promise(pool);
            const auto complete = [&] { EXPECT_TRUE(fails ? promise.setError("no") : promise.setValue(5)); };
            if (completeFirst)
              complete();
            promise.future().then(
                [&](const Future<int>& future)
                {
                  EXPECT_TRUE(future.isFinished());
                  order.push_back(future.hasError() ? future.error() : std::to_string(future.value()));
                });
            order.push_back("attached");
            if (!completeFirst)
              complete();
            order.push_back("completed");
          });
      pool->waitUntilIdle();
      EXPECT_EQ(order, (std::vector<std::string>{"attached", "completed", fails ? "no" : "5"}));
    }
  pool->close();
}

TEST(Future, FailsWhenTheLastHandleOfItsPromiseDies)
{
  std::optional<Promise<int>> promise(std::in_place), copy(promise);
  const auto future = promise->future();
  promise.reset();
  EXPECT_FALSE(future.wait(0ms));
  copy.reset();
  ASSERT_TRUE(future.wait(0ms));
  EXPECT_TRUE(future.hasError());
  EXPECT_THROW(future.value(), std::runtime_error);
  EXPECT_NE(future.error().find("given up"), std::string::npos);
}

TEST(Future, GivesTheErrorAsItWasSet)
{
  const Promise<std::string> promise;
  const auto original = std::make_exception_ptr(vu::ServiceError("Module", "method", "text", vu::ServiceError::Kind::NotAllowed));
  promise.setException(original);
  EXPECT_EQ(promise.future().exception(), original);
  EXPECT_EQ(promise.future().error(), "text");
  EXPECT_THROW(promise.future().value(), vu::ServiceError);

  EXPECT_EQ(vu::makeReadyFuture<int>(3).error(), "");
  EXPECT_EQ(vu::makeReadyFuture<int>(3).exception(), nullptr);
  EXPECT_EQ(vu::makeFailedFuture<void>(std::make_exception_ptr(7)).error(), "an error of an unknown type");
  EXPECT_FALSE(Future<int>().valid());
}

TEST(Future, OneOfManyConcurrentResultsStays)
{
  for (int round = 0; round < 200; ++round)
  {
    const Promise<int> promise;
    std::atomic<int> winner{-1}, winners{0}, told{0};
    waiting::Event continued(3);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back(
          [&, i]
          {
            if (i == 3)
              for (int n = 0; n < 3; ++n) // attached while it is being completed
                promise.future().then([&](const auto&) { ++told, continued.set(); });
            else if (i == 2 ? promise.setError("2") : promise.setValue(i))
              winner = i, ++winners;
          });
    ASSERT_TRUE(promise.future().wait(waiting::bound));
    for (auto& thread : threads)
      thread.join();
    ASSERT_TRUE(continued.wait());
    ASSERT_EQ(winners, 1);
    ASSERT_EQ(told, 3);
    const auto future = promise.future();
    ASSERT_EQ(future.hasError() ? future.error() : std::to_string(future.value()), std::to_string(winner));
  }
  ThreadPool::process()->waitUntilIdle();
}

TEST(Future, ForwardHandsOnTheResultOrTheErrorInsideTheCompletingCall)
{
  const Promise<int> source;
  const Promise<std::string> text;
  const Promise<void> nothing, failed;
  source.future().forward(text, [](int value) { return std::to_string(value); });
  source.future().forward(nothing, [](int) {});
  source.future().forward(failed, [](int) { throw std::range_error("does not fit"); });
  EXPECT_FALSE(text.future().isFinished());
  source.setValue(12);
  ASSERT_TRUE(text.future().isFinished() && nothing.future().isFinished() && failed.future().isFinished());
  EXPECT_EQ(text.future().value(), "12");
  EXPECT_FALSE(nothing.future().hasError());
  EXPECT_THROW(failed.future().value(), std::range_error);

  const Promise<int> number;
  nothing.future().forward(number, [] { return 4; });
  EXPECT_EQ(number.future().value(), 4);

  const Promise<void> passedOn;
  failed.future().forward(passedOn, [] { ADD_FAILURE() << "converts an error"; });
  EXPECT_EQ(passedOn.future().error(), "does not fit");

  Future<void> orphan;
  {
    const Promise<int> lost;
    const Promise<void> end;
    orphan = end.future();
    lost.future().forward(end, [](int) {});
  }
  EXPECT_TRUE(orphan.wait(0ms) && orphan.hasError()) << "a promise that dies fails the whole chain";
}

TEST(Future, ContinuationThatThrowsIsLogged)
{
  vu::log::Capture log;
  const auto pool = makePool(1);
  vu::makeReadyFuture<int>(1, pool).then([](const auto&) { throw std::runtime_error("in a continuation"); });
  pool->close();
  EXPECT_EQ(log.count(vu::log::Level::Error, "in a continuation"), 1u);
}
