#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include <vu/log.hpp>
#include <vu/signal.hpp>

#include <testing/waiting.hpp>

using namespace std::chrono_literals;
using TestSupport::Event;
using vu::Signal;

TEST(Signal, CallsInTheOrderOfConnectionOnTheEmittersThreadPastOneThatThrows)
{
  vu::log::Capture log;
  Signal<int> signal;
  std::string calls;
  std::atomic<int> elsewhere{0};
  for (const std::string name : {"a", "b", "c"})
    signal.connect(
        [&, name, here = std::this_thread::get_id()](int number)
        {
          elsewhere += std::this_thread::get_id() != here;
          calls += name + std::to_string(number);
          if (name == "b")
            throw std::runtime_error("bad subscriber");
        });
  EXPECT_NO_THROW(signal(1));
  EXPECT_EQ(calls, "a1b1c1");
  EXPECT_EQ(elsewhere, 0);
  EXPECT_EQ(log.count(vu::log::Level::Error, "bad subscriber"), 1u);
}

TEST(Signal, CallbackMayDisconnectItselfAndThoseAfterIt)
{
  Signal<> signal;
  int own = 0, after = 0;
  vu::SignalLink ownLink = 0, linkAfter = 0;
  ownLink = signal.connect(
      [&]
      {
        ++own;
        signal.disconnect(ownLink);
        signal.disconnect(linkAfter);
        signal(); // an emission inside an emission
      });
  linkAfter = signal.connect([&] { ++after; });
  signal();
  signal.disconnect(ownLink);
  EXPECT_EQ(own, 1);
  EXPECT_EQ(after, 0) << "disconnected while the emission was under way";
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
        EXPECT_TRUE(TestSupport::eventually([&] { return signal.connectionCount() == 0; }));
        never.wait(20ms);
        ended = true;
      });
  const std::jthread emitter([&] { signal(); });
  EXPECT_TRUE(entered.wait());
  signal.disconnect(link);
  EXPECT_TRUE(ended);
}

TEST(Signal, MayDieBeforeItsConnectionsAreUndone)
{
  const auto held = std::make_shared<int>(0);
  auto signal = std::make_unique<Signal<int>>();
  const auto state = signal->state();
  const auto link = signal->connect([held](int) { ++*held; });
  state->connectValues([held](const vu::Value&) { ++*held; });
  (*signal)(1);
  EXPECT_EQ(*held, 2);
  signal.reset();
  state->disconnect(link);
  state->disconnect(state->connectValues([held](const vu::Value&) {}));
  EXPECT_EQ(held.use_count(), 1) << "a signal that dies lets go of its subscribers";
}

TEST(Signal, NoCallbackRunsAfterItsDisconnectionHoweverManyThreadsEmit)
{
  constexpr int rounds = 300;
  Signal<> signal;
  std::atomic<bool> over{false};
  std::atomic<int> late{0};
  const auto emit = [&]
  {
    while (!over)
      signal();
  };
  std::jthread emitters[] = {std::jthread(emit), std::jthread(emit)};
  std::vector<std::atomic<bool>> disconnected(rounds);
  for (int round = 0; round < rounds; ++round)
  {
    Event ran; // a callback that came late would use what is gone
    const auto link = signal.connect([&, round] { late += disconnected[round], ran.set(); });
    EXPECT_TRUE(round % 2 || ran.wait());
    signal.disconnect(link);
    disconnected[round] = true;
  }
  over = true;
  for (auto& emitter : emitters)
    emitter.join();
  EXPECT_EQ(late, 0);
}
