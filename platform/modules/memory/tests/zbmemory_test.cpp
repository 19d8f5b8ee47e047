#include <zbmemory.hpp>

#include <atomic>
#include <latch>
#include <thread>

#include <gmock/gmock.h>

#include <testing/errors.hpp>
#include <testing/journal.hpp>
#include <testing/waiting.hpp>
#include <vu/caller.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zbmemoryproxy.hpp>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

namespace
{

using Callback = std::function<void(const std::string& key, const ZB::ZBValue& value, const std::string& message)>;

/// A module that hands on what it is told.
class Listener : public ZB::ZBModule
{
public:
  Listener(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, Callback callback)
      : ZBModule(std::move(broker), name), _callback(std::move(callback))
  {
    functionName("onEvent", name, "Be told of an event");
    bindMethod(this, &Listener::onEvent);
  }

  vu::Future<void> onEvent(const std::string& key, const ZB::ZBValue& value, const std::string& message)
  {
    _callback(key, value, message);
    return result;
  }

  vu::Future<void> result = vu::makeReadyFuture<void>();

private:
  const Callback _callback;
};

class Memory : public testing::Test
{
protected:
  explicit Memory(vu::ThreadPool::Limits limits = {}) : broker(ZB::ZBBroker::create({.pool = limits})), memory(broker)
  {
    service = &broker->createModule<ZB::ZBMemory>("ZBMemory");
    for (const auto* key : {"A", "B"})
      memory.declareEvent(key);
  }
  ~Memory() override { broker->shutdown(); }

  /// A module that hears of `keys`.
  Listener& listen(const std::string& name, const std::vector<std::string>& keys, Callback callback = {})
  {
    auto& listener = broker->createModule<Listener>(name, callback ? callback : note);
    for (const auto& key : keys)
      memory.subscribeToEvent(key, name, "", "onEvent");
    return listener;
  }

  std::shared_ptr<ZB::ZBBroker> broker;
  ZB::ZBMemoryProxy memory;
  ZB::ZBMemory* service = nullptr;
  TestSupport::Journal journal;
  const Callback note = [this](const std::string& key, const ZB::ZBValue& value, const std::string& message)
  { journal.add(key + value.value().dump() + message); };
  vu::log::Capture log;
};

TEST_F(Memory, dataIsKeptReplacedAndRemovedByKeyAndOnlyEventsLeaveTheirValue)
{
  for (const auto& value : {vu::Value("text"), vu::Value(), vu::Value({{"nested", {1, 2}}})})
  {
    memory.insertData("data", value);
    EXPECT_EQ(memory.getData("data").value(), value);
  }
  memory.raiseEvent("A", 1);
  memory.raiseEvent("A", 2);
  memory.raiseMicroEvent("A", 3);
  memory.raiseMicroEvent("B", 4);
  EXPECT_THAT(memory.getEventList(), ElementsAre("A", "B"));
  EXPECT_THAT(memory.getDataListName(), ElementsAre("A", "data"));
  EXPECT_EQ(memory.getData("A").to<int>(), 2);
  memory.removeData("data");
  EXPECT_THAT(memory.getDataListName(), ElementsAre("A"));
}

TEST_F(Memory, wrongKeysAndNamesAreRefusedByName)
{
  memory.insertData("known", 1);
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[this] { memory.getData("x"); }, "\"x\""},
      {[this] { memory.removeData("x"); }, "\"x\""},
      {[this] { memory.raiseEvent("known", 2); }, "\"known\" has not been declared"},
      {[this] { memory.raiseMicroEvent("known", 2); }, "\"known\" has not been declared"},
      {[this] { memory.declareEvent(""); }, "key is empty"},
      {[this] { memory.insertData("", 1); }, "key is empty"},
      {[this] { memory.subscribeToEvent("", "Module", "", "method"); }, "the module \"Module\""},
      {[this] { memory.subscribeToEvent("key", "", "", "method"); }, "the key \"key\""},
      {[this] { memory.subscribeToMicroEvent("key", "Module", "", ""); }, "the key \"key\""}};
  for (const auto& [call, text] : cases)
    EXPECT_THAT(TestSupport::serviceErrorOf(call).description(), HasSubstr(text));
  EXPECT_EQ(memory.getData("known").to<int>(), 1);
}

TEST_F(Memory, eitherKindOfSubscriptionGetsEitherKindOfLaterRaiseAndReplacesTheOther)
{
  memory.raiseEvent("A", 0);
  listen("Listener", {"A", "Later"});
  memory.subscribeToMicroEvent("A", "Listener", "micro", "onEvent");
  memory.raiseEvent("A", 1);
  memory.raiseMicroEvent("A", 2);
  memory.subscribeToEvent("A", "Listener", "event", "onEvent");
  memory.raiseEvent("A", 3);
  memory.raiseMicroEvent("A", 4);
  EXPECT_THROW(memory.raiseEvent("Later", 5), ZB::ZBError);
  memory.declareEvent("Later");
  memory.raiseEvent("Later", 6);
  EXPECT_THAT(journal.waitForCount(5), ElementsAre("A1micro", "A2micro", "A3event", "A4event", "Later6"));
}

TEST_F(Memory, subscribersMethodMayRaiseSubscribeAndUnsubscribe)
{
  const auto change = [this](const std::string& key, const ZB::ZBValue& value, const std::string& message)
  {
    note(key, value, message);
    if (key == "B")
      return;
    memory.unsubscribeToEvent("A", "Listener");
    memory.subscribeToEvent("B", "Listener", "", "onEvent");
    memory.raiseEvent("A", 2);
    memory.raiseEvent("B", 3);
  };
  listen("Listener", {"A"}, change);
  memory.raiseEvent("A", 1);
  EXPECT_THAT(journal.waitForCount(2), ElementsAre("A1", "B3"));
}

TEST_F(Memory, subscriberThatBlocksHoldsUpNobodyAndAfterUnsubscribingNothingThatStoodInItsLineIsDelivered)
{
  TestSupport::Event entered, release;
  const auto block = [&](const std::string& key, const ZB::ZBValue& value, const std::string&)
  {
    note("blocked ", value, key);
    if (key == "B")
      return;
    entered.set();
    release.wait();
  };
  listen("Blocked", {"A", "B"}, block);
  listen("Free", {"A"});
  memory.raiseEvent("A", 1);
  entered.wait();
  memory.raiseEvent("A", 2);
  EXPECT_THAT(journal.waitForCount(3), UnorderedElementsAre("blocked 1A", "A1", "A2"));
  memory.unsubscribeToMicroEvent("A", "Blocked");
  memory.unsubscribeToMicroEvent("A", "Blocked");
  memory.raiseEvent("A", 3);
  memory.raiseEvent("B", 4);
  release.set();
  EXPECT_THAT(journal.waitForCount(5), UnorderedElementsAre("blocked 1A", "A1", "A2", "A3", "blocked 4B"));
  broker->removeModule("Blocked"); // which knows of what ends with this test
}

TEST_F(Memory, methodThatFailsIsLoggedAndHurtsNobody)
{
  const auto fail = [this](const std::string& key, const ZB::ZBValue& value, const std::string&)
  {
    if (key == "A")
      throw std::runtime_error("broken subscriber");
    note(key, value, " of Failing");
  };
  listen("Failing", {"B"}, fail);
  listen("Sound", {"A"});
  std::size_t delivered = 0;
  for (const auto& [method, text] : {std::pair("onEvent", "broken subscriber"), std::pair("missing", "no method missing")})
  {
    SCOPED_TRACE(method);
    memory.subscribeToEvent("A", "Failing", "", method);
    memory.raiseEvent("A", 1);
    memory.raiseEvent("B", 2);
    EXPECT_THAT(journal.waitForCount(delivered += 2), testing::IsSupersetOf({"A1", "B2 of Failing"}));
    EXPECT_EQ(log.count(vu::log::Level::Warning, text), 1U);
    EXPECT_EQ(log.count(vu::log::Level::Warning, std::string("Failing.") + method + " failed on the event \"A\""), 1U);
  }
}

TEST_F(Memory, futureThatFailsLaterIsLoggedAndDoesNotHoldTheLine)
{
  const vu::Promise<void> later;
  listen("Listener", {"A"}).result = later.future();
  memory.raiseEvent("A", 1);
  memory.raiseEvent("A", 2);
  EXPECT_THAT(journal.waitForCount(2), ElementsAre("A1", "A2"));
  later.setError("failed in the end");
  broker->shutdown(); // runs what is queued on the pool
  EXPECT_EQ(log.count(vu::log::Level::Warning, "failed in the end"), 2U);
}

TEST_F(Memory, subscriberThatHasGoneIsSkippedAndItsSuccessorServed)
{
  listen("Gone", {"A"});
  listen("Sound", {"A"});
  broker->removeModule("Gone");
  memory.raiseEvent("A", 1);
  EXPECT_THAT(journal.waitForCount(1), ElementsAre("A1"));
  broker->createModule<Listener>("Gone", note);
  memory.raiseEvent("A", 2);
  EXPECT_THAT(journal.waitForCount(3), ElementsAre("A1", "A2", "A2"));
  EXPECT_EQ(log.count(vu::log::Level::Warning, ""), 0U);
}

TEST_F(Memory, concurrentRaisesReachSubscribersAndTheSignalInOneOrderOneAtATimeOnBehalfOfTheRaisers)
{
  constexpr int raisers = 4;
  constexpr int raises = 100;
  TestSupport::Journal signal;
  TestSupport::Journal journals[2];
  std::atomic<int> inside[2] = {0, 0};
  thread_local bool raising = false;
  service->eventRaised.connect([&](const std::string& key, const vu::Value& value) { signal.add(key + value.dump()); });
  for (const int i : {0, 1})
    listen("Listener" + std::to_string(i), {"A", "B"},
           [&, i](const std::string& key, const ZB::ZBValue& value, auto&&)
           {
             EXPECT_EQ(++inside[i], 1);
             EXPECT_FALSE(raising) << "a raiser's own thread";
             EXPECT_EQ(vu::currentCaller(), "raiser" + std::to_string(value.to<int>() / raises));
             --inside[i];
             journals[i].add(key + value.value().dump());
           });
  std::latch start(raisers);
  const auto raise = [&](int raiser)
  {
    const vu::CallerScope caller("raiser" + std::to_string(raiser));
    raising = true;
    start.arrive_and_wait();
    for (int number = raiser * raises; number < (raiser + 1) * raises; ++number)
    {
      number % 2 == 0 ? memory.raiseEvent("A", number) : memory.raiseMicroEvent("B", number);
      memory.insertData("last", number);
      EXPECT_GE(memory.getData("last").to<int>(), 0);
    }
  };
  std::vector<std::jthread> threads;
  for (int raiser = 0; raiser < raisers; ++raiser)
    threads.emplace_back(raise, raiser);
  threads.clear();
  const auto order = signal.lines();
  ASSERT_EQ(order.size(), static_cast<std::size_t>(raisers * raises)) << "a raise returned before its signal";
  for (const auto& journal : journals)
    EXPECT_EQ(journal.waitForCount(order.size()), order);
  EXPECT_EQ(memory.getData("A").value().dump(), signal.lines("A").back());
}

/// Subscribes in its constructor, where the pool's only thread must not be held.
class MemoryDuringConstruction : public Memory
{
protected:
  MemoryDuringConstruction() : Memory({.threads = 1, .maximum = 1}) {}

  struct Constructing : Listener
  {
    Constructing(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, MemoryDuringConstruction& test, bool fails)
        : Listener(broker, name, test.note)
    {
      test.memory.subscribeToEvent("A", name, "", "onEvent");
      test.memory.raiseEvent("A", 1);
      // The pool's only thread has passed the line when this has run.
      const auto passed = std::make_shared<TestSupport::Event>();
      broker->pool()->post([passed] { passed->set(); });
      EXPECT_TRUE(passed->wait());
      EXPECT_THAT(test.journal.lines(), testing::IsEmpty());
      test.memory.raiseMicroEvent("A", 2);
      if (fails)
        throw std::runtime_error("no sensor");
    }
  };
};

TEST_F(MemoryDuringConstruction, deliveriesWaitForTheConstructorWithoutHoldingAThreadAndAreDroppedWhenItThrows)
{
  EXPECT_THROW(broker->createModule<Constructing>("Listener", *this, true), std::runtime_error);
  memory.raiseEvent("A", 0);
  broker->createModule<Constructing>("Listener", *this, false);
  memory.raiseEvent("A", 3);
  EXPECT_THAT(journal.waitForCount(3), ElementsAre("A1", "A2", "A3"));
  EXPECT_EQ(log.count(vu::log::Level::Warning, ""), 0U);
}

} // namespace
