#include <algorithm>
#include <atomic>
#include <latch>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include <vu/caller.hpp>
#include <vu/future.hpp>
#include <vu/line.hpp>
#include <vu/log.hpp>
#include <vu/threadpool.hpp>

#include <testing/waiting.hpp>

using namespace std::chrono_literals;
using TestSupport::Event;
using vu::ThreadPool;

TEST(ThreadPool, GrowsWhenAllThreadsAreBlockedAndShrinksUnderASteadyLoadAndNone)
{
  constexpr std::size_t many = 30;
  ThreadPool pool({2, 64, 64, 500ms});
  std::latch begun(many);
  std::latch release(1);
  for (std::size_t i = 0; i < many; ++i)
    pool.post(
        [&]
        {
          begun.count_down();
          release.wait();
        });
  begun.wait();
  EXPECT_GE(pool.threadCount(), many);
  release.count_down();
  const auto limit = std::chrono::steady_clock::now() + 20s;
  while (pool.threadCount() > 8 && std::chrono::steady_clock::now() < limit)
  {
    pool.post([] {});
    std::this_thread::sleep_for(200us);
  }
  EXPECT_LE(pool.threadCount(), 8u);
  EXPECT_TRUE(TestSupport::eventually([&] { return pool.threadCount() == 2; })) << "and without any load";
}

TEST(ThreadPool, UrgentTasksGoAheadButNotForEver)
{
  ThreadPool pool({1, 1, 4096, 1s});
  std::latch begun(1);
  std::latch release(1);
  pool.post(
      [&]
      {
        begun.count_down();
        release.wait();
      });
  begun.wait();
  std::string order;
  for (int i = 0; i < 3; ++i)
    pool.post([&order] { order += 'u'; });
  for (int i = 0; i < 40; ++i)
    pool.postUrgent([&order] { order += '!'; });
  release.count_down();
  pool.waitUntilIdle();
  EXPECT_EQ(order, std::string(16, '!') + 'u' + std::string(16, '!') + 'u' + std::string(8, '!') + 'u');
}

TEST(Line, ThatGrowsTooLongIsToldOnceAndCountedUntilItIsShort)
{
  const auto pool = std::make_shared<ThreadPool>();
  const auto line = vu::Line::create(pool, "parcels for Arm");
  const vu::log::Capture log;
  const auto told = [&log] { return log.count(vu::log::Level::Warning, "10000 parcels for Arm wait"); };
  std::latch release(1);
  line->push([&] { release.wait(); });
  for (std::size_t i = 0; i < vu::Line::tooMany + 500; ++i)
    line->push([] {});
  EXPECT_TRUE(TestSupport::eventually([&] { return told() == 1; }));
  EXPECT_GE(vu::Line::tooLong()["parcels for Arm"], vu::Line::tooMany);
  release.count_down();
  pool->waitUntilIdle();
  EXPECT_TRUE(vu::Line::tooLong().empty());
  EXPECT_EQ(told(), 1u);
}

TEST(ThreadPool, TimersRunWhileAllThreadsAreBlocked)
{
  ThreadPool pool({1, 4, 16, 1s});
  std::atomic<bool> fired{false};
  pool.post(
      [&]
      {
        Event event;
        pool.postAfter(1h, [] {});
        pool.postAfter(1ms, [&] { event.set(); });
        fired = event.wait();
      });
  pool.waitUntilIdle();
  EXPECT_TRUE(fired);
}

TEST(ThreadPool, CloseRunsWhatIsQueuedDropsTimersAndSendsLaterTasksElsewhere)
{
  ThreadPool pool({2, 8, 16, 1s});
  std::atomic<int> ran{0};
  std::function<void()> chain = [&]
  {
    if (++ran < 100)
      pool.post(chain);
  };
  pool.post(chain);
  const auto held = std::make_shared<int>();
  pool.postAfter(1h, [held] {});
  pool.close();
  EXPECT_EQ(ran, 100);
  EXPECT_EQ(held.use_count(), 1) << "a dropped timer lets go of what it holds";

  Event late;
  std::atomic<bool> ours{true};
  pool.post([&] { ours = pool.runsThisThread(), late.set(); });
  EXPECT_TRUE(late.wait());
  EXPECT_FALSE(ours);
  pool.postAfter(0ms, [] { ADD_FAILURE() << "a timer ran in a closed pool"; });
}

TEST(ThreadPool, EveryTaskPostedWhileItClosesRunsOnce)
{
  constexpr int perThread = 1000;
  for (int round = 0; round < 10; ++round)
  {
    ThreadPool pool({2, 16, 16, 1s});
    std::vector<std::atomic<int>> runs(3 * perThread);
    Event some(perThread), all(3 * perThread);
    std::vector<std::jthread> posters;
    for (int thread = 0; thread < 3; ++thread)
      posters.emplace_back(
          [&, thread]
          {
            for (int i = 0; i < perThread; ++i)
              pool.post([&, number = thread * perThread + i] { ++runs[number], some.set(), all.set(); });
          });
    ASSERT_TRUE(some.wait());
    pool.close();
    posters.clear();
    ASSERT_TRUE(all.wait());
    ThreadPool::process()->waitUntilIdle(); // the last one may still be about to leave its task
    EXPECT_TRUE(std::all_of(runs.begin(), runs.end(), [](const auto& count) { return count == 1; }));
  }
}

TEST(ThreadPool, EndsElsewhereWhenOneOfItsTasksHeldTheLastHandle)
{
  Event handedOver;
  vu::Future<void> ended;
  {
    const auto pool = std::make_shared<ThreadPool>(ThreadPool::Limits{1, 1, 16, 1s});
    const vu::Promise<void> promise;
    ended = promise.future();
    pool->postAfter(1h, [promise] {});
    pool->post([&handedOver, pool] { handedOver.wait(); });
  }
  handedOver.set();
  EXPECT_TRUE(ended.wait(TestSupport::patience));
}

TEST(ThreadPool, TaskThatThrowsIsLoggedAndTheNextOneRuns)
{
  vu::log::Capture log;
  ThreadPool pool({1, 1, 16, 1s});
  pool.post([] { throw std::runtime_error("no battery"); });
  pool.post([] { throw 7; });
  pool.waitUntilIdle();
  EXPECT_EQ(log.count(vu::log::Level::Error, "no battery"), 1u);
  EXPECT_EQ(log.count(vu::log::Level::Error, "unknown type"), 1u);
}

TEST(Caller, IsInheritedByWhateverIsPostedAndEndsWithItsScope)
{
  const auto pool = std::make_shared<ThreadPool>(ThreadPool::Limits{1, 1, 16, 1s});
  const auto line = vu::Line::create(pool, "parcels");
  const vu::Promise<void> promise(pool);
  std::map<std::string, std::string> seen; // touched by the pool's only thread, then after it
  const auto note = [&](const std::string& what) { seen[what] = vu::currentCaller(); };
  Event timer;
  pool->post(
      [&]
      {
        {
          const vu::CallerScope alice("alice");
          pool->post([&] { pool->post([&] { note("nested"); }); });
          pool->postAfter(0ms, [&] { note("timer"), timer.set(); });
          promise.future().then([&](const auto&) { note("continuation"); });
          line->push([&] { note("line"); });
        }
        line->push([&] { note("line of nobody"); });
        const vu::CallerScope bob("bob");
        promise.setValue();
      });
  EXPECT_TRUE(timer.wait());
  pool->close();
  EXPECT_EQ(seen, (std::map<std::string, std::string>{
                      {"nested", "alice"}, {"timer", "alice"}, {"continuation", "alice"}, {"line", "alice"}, {"line of nobody", ""}}));
}

TEST(Line, KeepsTheOrderOfEachOfManyThreadsAndRunsOneTaskAtATime)
{
  constexpr int threads = 4, perThread = 500;
  const auto pool = std::make_shared<ThreadPool>(ThreadPool::Limits{4, 16, 16, 1s});
  auto line = vu::Line::create(pool, "parcels");
  std::vector<std::vector<int>> seen(threads); // touched by the line alone
  std::atomic<int> inside{0}, overlaps{0};
  std::vector<std::jthread> pushers;
  for (int thread = 0; thread < threads; ++thread)
    pushers.emplace_back(
        [&, thread]
        {
          for (int i = 0; i < perThread; ++i)
            line->push(
                [&, thread, i]
                {
                  overlaps += ++inside != 1;
                  seen[thread].push_back(i);
                  --inside;
                  if (i % 100 == 0)
                    throw std::runtime_error("a delivery that fails");
                });
        });
  pushers.clear();
  const auto passed = line->passed();
  line.reset(); // what stands in it runs all the same
  ASSERT_TRUE(passed.wait(TestSupport::patience));
  EXPECT_EQ(overlaps, 0);
  for (const auto& numbers : seen)
    EXPECT_TRUE(numbers.size() == perThread && std::is_sorted(numbers.begin(), numbers.end()));
  pool->close();
}
