#include <vu/orderedemitter.hpp>

#include <algorithm>
#include <atomic>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vu/log.hpp>

namespace
{

TEST(OrderedEmitter, concurrentEmissionsComeInTheOrderOfTheirTicketsAndBeforeEmitReturns)
{
  vu::OrderedEmitter emitter;
  std::mutex mutex; // guards next
  int next = 0;
  std::vector<int> announced; // one announcement at a time: needs no lock
  std::latch start(8);
  const auto work = [&]
  {
    start.arrive_and_wait();
    for (int i = 0; i < 500; ++i)
    {
      bool made = false;
      std::unique_lock lock(mutex);
      const auto ticket = emitter.queue(
          [&, number = next++]
          {
            announced.push_back(number);
            made = true;
          });
      lock.unlock();
      emitter.emit(ticket);
      EXPECT_TRUE(made);
    }
  };
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 8; ++thread)
    threads.emplace_back(work);
  threads.clear();
  ASSERT_EQ(announced.size(), 4000U);
  EXPECT_TRUE(std::is_sorted(announced.begin(), announced.end()));
}

TEST(OrderedEmitter, nestedEmissionComesAfterTheOuterOneAndBeforeItReturnsEvenIfThatThrows)
{
  vu::OrderedEmitter emitter;
  const vu::log::Capture log;
  std::vector<std::string> announced;
  const auto outer = [&]
  {
    emitter.emit(emitter.queue([&] { announced.emplace_back("inner"); }));
    announced.emplace_back("outer");
    throw std::runtime_error("broken announcement");
  };
  emitter.emit(emitter.queue(outer));
  EXPECT_THAT(announced, testing::ElementsAre("outer", "inner"));
  EXPECT_EQ(log.count(vu::log::Level::Error, "broken announcement"), 1U);
}

TEST(OrderedEmitter, announcementsThatEmitCrosswiseDoNotWaitForEachOther)
{
  vu::OrderedEmitter emitters[2];
  std::latch bothInside(2);
  std::atomic<int> followers = 0;
  const auto announce = [&](int own)
  {
    const auto cross = [&, own]
    {
      bothInside.arrive_and_wait();
      emitters[1 - own].emit(emitters[1 - own].queue([&] { ++followers; }));
    };
    emitters[own].emit(emitters[own].queue(cross));
  };
  std::thread thread(announce, 0);
  announce(1);
  thread.join();
  EXPECT_EQ(followers, 2);
}

} // namespace
