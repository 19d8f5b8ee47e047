#include <common/orderedemitter.hpp>

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
  common::OrderedEmitter emitter;
  std::mutex mutex; // guards next
  int next = 0;
  std::vector<int> announced; // one announcement at a time: needs no lock
  std::vector<std::thread> threads;
  std::latch start(8);
  for (int thread = 0; thread < 8; ++thread)
    threads.emplace_back(
        [&]
        {
          start.arrive_and_wait();
          for (int i = 0; i < 500; ++i)
          {
            bool made = false;
            common::OrderedEmitter::Ticket ticket;
            {
              const std::lock_guard lock(mutex);
              ticket = emitter.queue(
                  [&announced, &made, number = next++]
                  {
                    announced.push_back(number);
                    made = true;
                  });
            }
            emitter.emit(ticket);
            EXPECT_TRUE(made);
          }
        });
  for (auto& thread : threads)
    thread.join();
  ASSERT_EQ(announced.size(), 4000U);
  EXPECT_TRUE(std::is_sorted(announced.begin(), announced.end()));
}

TEST(OrderedEmitter, nestedEmissionComesAfterTheOuterOneAndBeforeItReturns)
{
  common::OrderedEmitter emitter;
  std::vector<std::string> announced;
  emitter.emit(emitter.queue(
      [&]
      {
        emitter.emit(emitter.queue([&] { announced.emplace_back("inner"); }));
        announced.emplace_back("outer");
      }));
  EXPECT_THAT(announced, testing::ElementsAre("outer", "inner"));
}

TEST(OrderedEmitter, announcementsThatEmitCrosswiseDoNotWaitForEachOther)
{
  common::OrderedEmitter left;
  common::OrderedEmitter right;
  std::latch bothInside(2);
  std::atomic<int> followers = 0;
  const auto announce = [&](common::OrderedEmitter& own, common::OrderedEmitter& other)
  {
    own.emit(own.queue(
        [&]
        {
          bothInside.arrive_and_wait();
          other.emit(other.queue([&] { ++followers; }));
        }));
  };
  std::thread thread([&] { announce(left, right); });
  announce(right, left);
  thread.join();
  EXPECT_EQ(followers, 2);
}

TEST(OrderedEmitter, announcementThatThrowsIsLoggedAndHindersNoOther)
{
  common::OrderedEmitter emitter;
  vu::log::Capture log;
  emitter.emit(emitter.queue([] { throw std::runtime_error("broken announcement"); }));
  EXPECT_EQ(log.count(vu::log::Level::Error, "broken announcement"), 1U);
  bool made = false;
  emitter.emit(emitter.queue([&] { made = true; }));
  EXPECT_TRUE(made);
}

} // namespace
