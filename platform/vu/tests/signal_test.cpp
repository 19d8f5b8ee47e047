#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <vu/log.hpp>
#include <vu/signal.hpp>

#include "waiting.hpp"

using vu::Signal;
using vu::SignalBase;
using vu::SignalLink;
using waiting::Event;

TEST(Signal, CallsInTheOrderOfConnectionOnTheEmittersThread)
{
  Signal<int, std::string> signal;
  std::vector<std::string> calls;
  std::set<SignalLink> links;
  for (const std::string name : {"a", "b", "c"})
    links.insert(signal.connect(
        [&, name, here = std::this_thread::get_id()](int number, const std::string& text)
        {
          EXPECT_EQ(std::this_thread::get_id(), here);
          calls.push_back(name + std::to_string(number) + text);
        }));
  EXPECT_EQ(signal.connectionCount(), 3u);
  signal(1, "x");
  EXPECT_EQ(calls, (std::vector<std::string>{"a1x", "b1x", "c1x"}));

  // A link is never given twice, and unknown ones are ignored.
  for (const auto link : std::set<SignalLink>(links))
    signal.disconnect(link);
  signal.disconnect(*links.begin());
  signal.disconnect(SignalBase::invalidSignalLink);
  EXPECT_EQ(signal.connectionCount(), 0u);
  Signal<> other;
  EXPECT_TRUE(links.insert(other.connect([] {})).second);
  EXPECT_EQ(links.count(SignalBase::invalidSignalLink), 0u);
  EXPECT_EQ(signal.argumentTypes(), (std::vector<std::string>{"int", "string"}));
}

TEST(Signal, CallbackMayDisconnectItselfAndThoseAfterIt)
{
  Signal<> signal;
  int own = 0, after = 0;
  SignalLink first = 0, second = 0;
  first = signal.connect(
      [&]
      {
        ++own;
        signal.disconnect(first);
        signal.disconnect(second);
        signal(); // an emission inside an emission
      });
  second = signal.connect([&] { ++after; });
  signal();
  signal();
  EXPECT_EQ(own, 1);
  EXPECT_EQ(after, 0) << "disconnected while the emission was under way";
}

TEST(Signal, CallbackThatThrowsIsLoggedAndTheOthersRun)
{
  vu::log::Capture log;
  Signal<> signal;
  int others = 0;
  signal.connect([] { throw std::runtime_error("bad subscriber"); });
  const auto link = signal.connect([&] { ++others; });
  EXPECT_NO_THROW(signal());
  EXPECT_EQ(others, 1);
  EXPECT_EQ(log.count(vu::log::Level::Error, "bad subscriber"), 1u);
  signal.disconnect(link);
}

TEST(Signal, DisconnectWaitsForTheCallbackOnAnotherThread)
{
  Signal<> signal;
  Event entered, never;
  std::atomic<bool> ended{false};
  const auto link = signal.connect(
      [&]
      {
        entered.set();
        // By now the disconnecting thread is inside disconnect().
        EXPECT_TRUE(waiting::eventually([&] { return signal.connectionCount() == 0; }));
        never.wait(std::chrono::milliseconds(20));
        ended = true;
      });
  std::thread emitter([&] { signal(); });
  EXPECT_TRUE(entered.wait());
  signal.disconnect(link);
  EXPECT_TRUE(ended);
  emitter.join();
}

TEST(Signal, MayDieBeforeItsConnectionsAreUndone)
{
  auto held = std::make_shared<int>(0);
  auto signal = std::make_unique<Signal<int>>();
  const auto state = signal->state();
  const auto link = signal->connect([held](int) { ++*held; });
  state->connectValues([held](const vu::Value&) { ++*held; });
  (*signal)(1);
  EXPECT_EQ(*held, 2);
  signal.reset();
  EXPECT_EQ(held.use_count(), 1) << "a signal that dies lets go of its subscribers";
  state->disconnect(link);
  state->disconnect(state->connectValues([held](const vu::Value&) {}));
  EXPECT_EQ(held.use_count(), 1);
}

TEST(Signal, NoCallbackRunsAfterItsDisconnectionHoweverManyThreadsEmit)
{
  Signal<int> signal;
  std::atomic<bool> over{false};
  std::atomic<int> late{0}, runs{0}, settled{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i)
    threads.emplace_back(
        [&]
        {
          while (!over)
            signal(1);
        });
  for (int i = 0; i < 2; ++i)
    threads.emplace_back(
        [&]
        {
          for (int round = 0; round < 300; ++round)
          {
            auto connected = std::make_unique<std::atomic<bool>>(true);
            Event ran;
            const auto link = signal.connect(
                [&, flag = connected.get()](int)
                {
                  late += !*flag;
                  ++runs;
                  ran.set();
                });
            ran.wait(std::chrono::milliseconds(round % 2 ? 0 : 20000));
            signal.disconnect(link);
            *connected = false;
            connected.reset(); // a callback that came now would use what is gone
          }
          ++settled;
        });
  EXPECT_TRUE(waiting::eventually([&] { return settled == 2; }));
  over = true;
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(late, 0);
  EXPECT_GE(runs, 300);
  EXPECT_EQ(signal.connectionCount(), 0u);
}
