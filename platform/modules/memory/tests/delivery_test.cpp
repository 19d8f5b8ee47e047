#include "listener.hpp"

#include <zbmemory.hpp>

#include <future>
#include <latch>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vu/caller.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbmemoryproxy.hpp>

using testing::ElementsAre;

namespace
{

class Delivery : public testing::Test
{
protected:
  explicit Delivery(vu::ThreadPool::Limits limits = {}) : broker(ZB::ZBBroker::create({.pool = limits})), memory(broker)
  {
    service = &broker->createModule<ZB::ZBMemory>("ZBMemory");
    for (const auto* key : {"A", "B", "Stop"})
      memory.declareEvent(key);
  }
  ~Delivery() override { broker->shutdown(); }

  /// Notes "key value message".
  Listener::Callback note()
  {
    return [this](const std::string& key, const ZB::ZBValue& value, const std::string& message)
    { journal.add(key + " " + value.value().dump() + " " + message); };
  }

  std::shared_ptr<ZB::ZBBroker> broker;
  ZB::ZBMemoryProxy memory;
  ZB::ZBMemory* service = nullptr;
  Journal journal;
  vu::log::Capture log;
};

TEST_F(Delivery, eitherKindOfSubscriptionGetsEitherKindOfRaise)
{
  broker->createModule<Listener>("Event", note());
  broker->createModule<Listener>("MicroEvent", note());
  memory.subscribeToEvent("A", "Event", "event", "onEvent");
  memory.subscribeToMicroEvent("A", "MicroEvent", "micro", "onEvent");
  memory.raiseEvent("A", 1);
  memory.raiseMicroEvent("A", "two");
  EXPECT_THAT(journal.wait(4), testing::UnorderedElementsAre("A 1 event", "A 1 micro", "A \"two\" event", "A \"two\" micro"));
}

TEST_F(Delivery, secondSubscriptionOfEitherKindReplacesTheFirst)
{
  broker->createModule<Listener>("Listener", note());
  memory.subscribeToEvent("A", "Listener", "first", "onEvent");
  memory.subscribeToMicroEvent("A", "Listener", "second", "onEvent");
  memory.subscribeToEvent("Stop", "Listener", "", "onEvent");
  memory.raiseEvent("A", 1);
  memory.raiseEvent("Stop", 0);
  EXPECT_THAT(journal.wait(2), ElementsAre("A 1 second", "Stop 0 "));
}

TEST_F(Delivery, subscriptionBeforeTheDeclarationIsServedAndSubscribingDeliversNothing)
{
  broker->createModule<Listener>("Listener", note());
  memory.raiseEvent("A", "kept before");
  memory.subscribeToEvent("A", "Listener", "", "onEvent");
  memory.subscribeToEvent("Later", "Listener", "", "onEvent");
  EXPECT_THROW(memory.raiseEvent("Later", 1), ZB::ZBError);
  memory.declareEvent("Later");
  memory.raiseEvent("Later", 2);
  EXPECT_THAT(journal.wait(1), ElementsAre("Later 2 "));
}

TEST_F(Delivery, eventsOfAllKeysArriveInOrderOneAtATimeAndNeverOnTheRaisersThread)
{
  constexpr int count = 300;
  std::atomic<int> inside = 0;
  const auto raiser = std::this_thread::get_id();
  std::vector<std::string> expected;
  broker->createModule<Listener>("Listener",
                                 [&](const std::string& key, const ZB::ZBValue& value, const std::string&)
                                 {
                                   EXPECT_EQ(++inside, 1);
                                   EXPECT_NE(std::this_thread::get_id(), raiser);
                                   journal.add(key + std::to_string(value.to<int>()));
                                   --inside;
                                 });
  memory.subscribeToEvent("A", "Listener", "", "onEvent");
  memory.subscribeToMicroEvent("B", "Listener", "", "onEvent");
  for (int i = 0; i < count; ++i)
  {
    const std::string key = i % 3 == 0 ? "A" : "B";
    i % 2 == 0 ? memory.raiseEvent(key, i) : memory.raiseMicroEvent(key, i);
    expected.push_back(key + std::to_string(i));
  }
  EXPECT_EQ(journal.wait(count), expected);
}

TEST_F(Delivery, subscriberThatBlocksHoldsUpNeitherRaiserNorOtherSubscribers)
{
  std::promise<void> release;
  broker->createModule<Listener>("Blocked", [future = release.get_future().share()](auto&&...) { future.wait(); });
  broker->createModule<Listener>("Free", note());
  memory.subscribeToEvent("A", "Blocked", "", "onEvent");
  memory.subscribeToEvent("A", "Free", "", "onEvent");
  memory.raiseEvent("A", 1);
  memory.raiseEvent("A", 2);
  EXPECT_THAT(journal.wait(2), ElementsAre("A 1 ", "A 2 "));
  release.set_value();
}

TEST_F(Delivery, subscribersMethodMayRaiseSubscribeAndUnsubscribe)
{
  broker->createModule<Listener>("Listener",
                                 [this](const std::string& key, const ZB::ZBValue& value, const std::string&)
                                 {
                                   journal.add(key);
                                   if (key == "Stop")
                                     return;
                                   memory.unsubscribeToEvent("A", "Listener");
                                   memory.subscribeToEvent("Stop", "Listener", "", "onEvent");
                                   memory.raiseEvent("A", value);
                                   memory.raiseEvent("Stop", value);
                                 });
  memory.subscribeToEvent("A", "Listener", "", "onEvent");
  memory.raiseEvent("A", 1);
  EXPECT_THAT(journal.wait(2), ElementsAre("A", "Stop"));
}

TEST_F(Delivery, afterUnsubscribingNothingThatStoodInTheLineIsDelivered)
{
  std::promise<void> entered;
  std::promise<void> release;
  broker->createModule<Listener>("Listener",
                                 [&](const std::string& key, const ZB::ZBValue& value, const std::string&)
                                 {
                                   journal.add(key + value.value().dump());
                                   if (key == "A")
                                   {
                                     entered.set_value();
                                     release.get_future().wait();
                                   }
                                 });
  for (const auto* key : {"A", "Stop"})
    memory.subscribeToEvent(key, "Listener", "", "onEvent");
  memory.raiseEvent("A", 1);
  entered.get_future().wait();
  memory.raiseEvent("A", 2);
  memory.unsubscribeToMicroEvent("A", "Listener");
  memory.unsubscribeToMicroEvent("A", "Listener");
  memory.unsubscribeToEvent("A", "Nobody");
  memory.raiseEvent("A", 3);
  memory.raiseEvent("Stop", 4);
  release.set_value();
  EXPECT_THAT(journal.wait(2), ElementsAre("A1", "Stop4"));
}

TEST_F(Delivery, methodThatFailsIsLoggedAndHurtsNobody)
{
  const auto fail = [this](const std::string& key, auto&&...)
  {
    if (key == "A")
      throw std::runtime_error("broken subscriber");
    journal.add("failing module: " + key);
  };
  const struct
  {
    const char* method;
    const char* text;
  } cases[] = {{"onEvent", "broken subscriber"},
               {"missing", "no method missing"},
               {"onKey", "takes 1 argument"},
               {"onEventLater", "broken subscriber"}};
  broker->createModule<Listener>("Failing", fail);
  broker->createModule<Listener>("Sound", note());
  memory.subscribeToEvent("A", "Sound", "", "onEvent");
  memory.subscribeToEvent("B", "Failing", "", "onEvent");
  std::size_t delivered = 0;
  for (const auto& [method, text] : cases)
  {
    SCOPED_TRACE(method);
    log.clear();
    memory.subscribeToEvent("A", "Failing", "", method);
    memory.raiseEvent("A", 1);
    memory.raiseEvent("B", 2);
    EXPECT_THAT(journal.wait(delivered += 2), testing::IsSupersetOf({"A 1 ", "failing module: B"}));
    EXPECT_EQ(log.count(vu::log::Level::Warning, text), 1U);
    EXPECT_EQ(log.count(vu::log::Level::Warning, std::string("Failing.") + method + " failed on the event \"A\""), 1U);
  }
}

TEST_F(Delivery, futureThatFailsLaterIsLoggedAndDoesNotHoldTheLine)
{
  auto& listener = broker->createModule<Listener>("Listener", note());
  memory.subscribeToEvent("A", "Listener", "", "onEventLater");
  memory.raiseEvent("A", 1);
  memory.raiseEvent("A", 2);
  EXPECT_THAT(journal.wait(2), ElementsAre("A 1 ", "A 2 "));
  EXPECT_EQ(log.count(vu::log::Level::Warning, "failed"), 0U);
  listener.later.setError("failed in the end");
  broker->shutdown(); // runs what is queued on the pool
  EXPECT_EQ(log.count(vu::log::Level::Warning, "failed in the end"), 2U);
}

TEST_F(Delivery, subscriberThatHasGoneIsSkippedAndItsSuccessorServed)
{
  broker->createModule<Listener>("Gone", note());
  broker->createModule<Listener>("Sound", note());
  memory.subscribeToEvent("A", "Gone", "gone", "onEvent");
  memory.subscribeToEvent("A", "Sound", "sound", "onEvent");
  memory.subscribeToEvent("A", "NeverThere", "", "onEvent");
  broker->removeModule("Gone");
  memory.raiseEvent("A", 1);
  EXPECT_THAT(journal.wait(1), ElementsAre("A 1 sound"));
  broker->createModule<Listener>("Gone", note());
  memory.raiseEvent("A", 2);
  EXPECT_THAT(journal.wait(3), testing::UnorderedElementsAre("A 1 sound", "A 2 sound", "A 2 gone"));
  EXPECT_EQ(log.count(vu::log::Level::Warning, ""), 0U);
}

TEST_F(Delivery, subscriberWorksOnBehalfOfTheRaiser)
{
  broker->createModule<Listener>("Listener", [this](auto&&...) { journal.add(vu::currentCaller()); });
  memory.subscribeToEvent("A", "Listener", "", "onEvent");
  for (const auto* caller : {"alice", "bob"})
  {
    const vu::CallerScope scope(caller);
    memory.raiseEvent("A", 1);
  }
  EXPECT_THAT(journal.wait(2), ElementsAre("alice", "bob"));
}

TEST_F(Delivery, concurrentRaisesReachAllSubscribersAndTheSignalInOneOrder)
{
  constexpr int raisers = 4;
  constexpr int raises = 100;
  std::vector<Journal> journals(3);
  service->eventRaised.connect([&](const std::string& key, const vu::Value& value) { journals[0].add(key + value.dump()); });
  for (int i = 1; i < 3; ++i)
  {
    const auto name = "Listener" + std::to_string(i);
    broker->createModule<Listener>(name, [&journals, i](const std::string& key, const ZB::ZBValue& value, auto&&)
                                   { journals[i].add(key + value.value().dump()); });
    for (const auto* key : {"A", "B"})
      memory.subscribeToEvent(key, name, "", "onEvent");
  }
  std::latch start(raisers);
  std::vector<std::thread> threads;
  for (int raiser = 0; raiser < raisers; ++raiser)
    threads.emplace_back(
        [&, raiser]
        {
          start.arrive_and_wait();
          for (int i = 0; i < raises; ++i)
            memory.raiseEvent(raiser % 2 == 0 ? "A" : "B", raiser * raises + i);
        });
  for (auto& thread : threads)
    thread.join();
  const auto order = journals[0].wait(0);
  ASSERT_EQ(order.size(), static_cast<std::size_t>(raisers * raises)) << "a raise returned before its signal";
  EXPECT_EQ(journals[1].wait(order.size()), order);
  EXPECT_EQ(journals[2].wait(order.size()), order);
  const auto last = [&order](char key)
  { return std::find_if(order.rbegin(), order.rend(), [key](const auto& entry) { return entry.front() == key; })->substr(1); };
  EXPECT_EQ(memory.getData("A").value().dump(), last('A'));
  EXPECT_EQ(memory.getData("B").value().dump(), last('B'));
}

TEST_F(Delivery, eventRaisedInsideTheSignalFollowsAndIsNotWaitedFor)
{
  service->eventRaised.connect(
      [this](const std::string& key, const vu::Value&)
      {
        if (key == "A")
          memory.raiseEvent("B", 2);
        journal.add(key);
      });
  memory.raiseEvent("A", 1);
  EXPECT_THAT(journal.wait(0), ElementsAre("A", "B"));
}

/// With a single thread in the pool, nobody may wait on it.
class DeliveryDuringConstruction : public Delivery
{
protected:
  DeliveryDuringConstruction() : Delivery({.threads = 1, .maximum = 1}) {}

  void subscribeAndRaise()
  {
    memory.subscribeToEvent("A", "Listener", "", "onEvent");
    memory.subscribeToMicroEvent("B", "Listener", "", "onEvent");
    memory.raiseEvent("A", 1);
    memory.raiseMicroEvent("B", 2);
    // The pool's only thread has passed the line when this has run.
    std::promise<void> passed;
    broker->pool()->post([&] { passed.set_value(); });
    EXPECT_EQ(passed.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_THAT(journal.wait(0), testing::IsEmpty());
    memory.raiseEvent("A", 3);
  }
};

TEST_F(DeliveryDuringConstruction, deliveriesWaitForTheConstructorWithoutHoldingAThread)
{
  broker->createModule<Listener>("Listener", note(), [this] { subscribeAndRaise(); });
  memory.raiseEvent("A", 4);
  EXPECT_THAT(journal.wait(4), ElementsAre("A 1 ", "B 2 ", "A 3 ", "A 4 "));
}

TEST_F(DeliveryDuringConstruction, deliveriesAreDroppedWhenTheConstructorThrows)
{
  const auto construct = [this]
  {
    subscribeAndRaise();
    throw std::runtime_error("no sensor");
  };
  EXPECT_THROW(broker->createModule<Listener>("Listener", note(), construct), std::runtime_error);
  broker->createModule<Listener>("Listener", note(), [this] { memory.raiseEvent("A", 5); });
  memory.raiseEvent("A", 6);
  EXPECT_THAT(journal.wait(2), ElementsAre("A 5 ", "A 6 "));
  EXPECT_EQ(log.count(vu::log::Level::Warning, ""), 0U);
}

} // namespace
