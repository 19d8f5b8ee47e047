#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <vu/log.hpp>
#include <vu/objectbuilder.hpp>

#include "waiting.hpp"

using namespace std::chrono_literals;
using vu::Future;
using vu::Object;
using vu::ServiceError;
using vu::Value;
using waiting::Event;
using Kind = ServiceError::Kind;

namespace
{

class OutOfReach : public ServiceError
{
public:
  using ServiceError::ServiceError;
};

class Arm
{
public:
  int add(int left, const std::int8_t& right) { return left + right; }
  std::string join(const std::vector<std::string>& words, bool loud) const
  {
    std::string all;
    for (const auto& word : words)
      all += word;
    return loud ? all + "!" : all;
  }
  void fail() { throw OutOfReach("Arm", "fail", "too far", Kind::Service); }
  std::string caller() { return vu::currentCaller(); }
  std::string thread() { return (std::ostringstream() << std::this_thread::get_id()).str(); }
  Future<std::string> later() { return promise.future(); }
  void block()
  {
    entered.set();
    release.wait();
    ended = true;
  }

  vu::Promise<std::string> promise;
  Event entered, release;
  std::atomic<bool> ended{false};
  vu::Signal<int> moved;
  vu::Signal<std::string, Value> said;
};

class ObjectTest : public testing::Test
{
protected:
  ObjectTest()
      : pool(std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{2, 16, 64, 1s})), builder("Arm", pool), service(builder.object()),
        object(service)
  {
    builder.setDescription("A robot's arm");
    builder.advertiseMethod({"join", "Join words", {{"words", "what to join", ""}, {"loud", "", ""}}, {{"text", "all", ""}}},
                            &std::as_const(*arm), &Arm::join);
    builder.advertiseMethod({"add", "Add", {}, {{"sum", "", ""}}}, arm.get(), &Arm::add);
    builder.advertiseMethod({"fail", "Fail", {}, {}}, arm.get(), &Arm::fail);
    builder.advertiseMethod({"caller", "Who", {}, {{"name", "", ""}}}, arm.get(), &Arm::caller);
    builder.advertiseMethod({"thread", "Where", {}, {{"id", "", ""}}}, arm.get(), &Arm::thread);
    builder.advertiseMethod({"later", "Later", {}, {{"text", "", ""}}}, arm.get(), &Arm::later);
    builder.advertiseMethod({"block", "Block", {}, {}}, arm.get(), &Arm::block);
    builder.advertiseSignal("said", arm->said);
    builder.advertiseSignal("moved", arm->moved);
  }

  ~ObjectTest() override
  {
    arm->release.set();
    pool->close();
  }

  const std::shared_ptr<vu::ThreadPool> pool;
  std::unique_ptr<Arm> arm = std::make_unique<Arm>();
  vu::ObjectBuilder builder;
  const std::shared_ptr<vu::LocalObject> service;
  Object object;
};

template <typename F> ServiceError errorOf(const F& call)
{
  try
  {
    call();
  }
  catch (const ServiceError& error)
  {
    return error;
  }
  catch (const std::exception& error)
  {
    ADD_FAILURE() << "not a service's error: " << error.what();
  }
  return ServiceError("", "", "");
}

} // namespace

TEST(Object, EmptyHandleRefusesEveryUse)
{
  const Object empty;
  EXPECT_FALSE(empty);
  const std::vector<std::function<void()>> uses{
      [&] { empty.call<void>("x"); }, [&] { empty.async<void>("x"); }, [&] { empty.connect<int>("x", [](int) {}); },
      [&] { empty.disconnect(1); },   [&] { empty.name(); },           [&] { empty.description(); },
      [&] { empty.delivered(); }};
  for (std::size_t i = 0; i < uses.size(); ++i)
  {
    SCOPED_TRACE(i);
    try
    {
      uses[i]();
      ADD_FAILURE() << "accepted";
    }
    catch (const std::runtime_error& error)
    {
      EXPECT_STREQ(error.what(), "This object is null");
    }
  }
}

TEST_F(ObjectTest, DescribesItselfInTheOrderOfAdvertisingAlsoAsAValue)
{
  const auto value = Value(object.description());
  std::string methods, signals;
  for (const auto& method : value["methods"])
    methods += method["name"].get<std::string>() + " ";
  for (const auto& signal : value["signals"])
    signals += signal["name"].get<std::string>() + signal["arguments"].dump();
  EXPECT_EQ(methods, "join add fail caller thread later block ");
  EXPECT_EQ(signals, R"(said["string","value"]moved["int"])");
  EXPECT_EQ(value["methods"][0], Value::parse(R"({"name": "join", "description": "Join words", "parameters":
    [{"name": "words", "description": "what to join", "type": "[string]"}, {"name": "loud", "description": "", "type": "bool"}],
    "returns": {"name": "text", "description": "all", "type": "string"}})"));
  EXPECT_TRUE(value["methods"][2]["returns"].is_null());

  const auto again = value.get<vu::ObjectDescription>();
  EXPECT_EQ(Value(again), value);
  EXPECT_TRUE(again.method("later")->future);
  EXPECT_FALSE(again.method("add")->future);
  EXPECT_EQ(again.method("nothing"), nullptr);
  EXPECT_EQ(again.method("add")->parameters.size(), 2u) << "undescribed parameters are there, without a name";
}

TEST_F(ObjectTest, ArgumentsThatDoNotFitAreRefusedByMethodAndPosition)
{
  const std::vector<std::tuple<std::string, Value, Kind, std::string>> cases{
      {"nothing", Value::array(), Kind::UnknownMethod, "the service Arm has no method nothing"},
      {"add", {1}, Kind::InvalidArguments, "Arm.add takes 2 arguments, 1 given"},
      {"add", Value::object(), Kind::InvalidArguments, "Arm.add takes 2 arguments"},
      {"fail", {1, 2, 3}, Kind::InvalidArguments, "Arm.fail takes 0 arguments, 3 given"},
      {"add", {"1", 2}, Kind::InvalidArguments, "Arm.add: argument 1: expected int, found string"},
      {"add", {1, 1.5}, Kind::InvalidArguments, "Arm.add: argument 2: expected int, found number"},
      {"add", {1, 128}, Kind::InvalidArguments, "Arm.add: argument 2: expected int, found 128, which is out of range"},
      {"add", {-2147483649LL, 0}, Kind::InvalidArguments, "argument 1: expected int, found -2147483649"},
      {"join", {{"a", 1}, true}, Kind::InvalidArguments, "Arm.join: argument 1: expected string, found number"},
      {"join", {Value::array({"a"}), 1}, Kind::InvalidArguments, "Arm.join: argument 2: expected bool, found number"}};
  for (const auto& [method, arguments, kind, text] : cases)
  {
    SCOPED_TRACE(method + arguments.dump());
    for (const auto& result : {object.callValues(method, arguments), object.asyncValues(method, arguments)})
    {
      const auto error = errorOf([&] { result.value(); });
      EXPECT_EQ(error.kind(), kind);
      EXPECT_EQ(error.module(), "Arm");
      EXPECT_EQ(error.method(), method);
      EXPECT_NE(error.description().find(text), std::string::npos) << error.description();
    }
  }
  EXPECT_EQ(object.call<int>("add", 100, -128), -28);
  EXPECT_THROW(object.call<void>("fail"), OutOfReach) << "the error arrives as it was thrown";
  const auto error = errorOf([&] { object.call<std::string>("add", 1, 2); });
  EXPECT_EQ(error.description(), "the result does not fit: expected string, found number");
}

TEST_F(ObjectTest, CallsRunOnTheCallersThreadAndPostedOnesOnThePoolBothForTheCaller)
{
  const vu::CallerScope caller("alice");
  EXPECT_EQ(object.call<std::string>("thread"), arm->thread());
  EXPECT_NE(object.async<std::string>("thread").value(), arm->thread());
  EXPECT_EQ(object.call<std::string>("caller"), "alice");
  EXPECT_EQ(object.async<std::string>("caller").value(), "alice");
  EXPECT_EQ(object.call<std::string>("join", std::vector<std::string>{"a", "b"}, true), "ab!");
}

TEST_F(ObjectTest, MethodThatGivesAFutureIsWaitedForAndHoldsNoThreadWhenPosted)
{
  std::vector<Future<std::string>> posted; // more than the pool may have threads
  for (int i = 0; i < 40; ++i)
    posted.push_back(object.async<std::string>("later"));
  EXPECT_TRUE(object.async<std::string>("caller").wait(waiting::bound));
  EXPECT_FALSE(posted.back().isFinished());
  std::thread completer([&] { arm->promise.setValue("at last"); });
  EXPECT_EQ(object.call<std::string>("later"), "at last");
  for (const auto& future : posted)
    EXPECT_EQ(future.value(), "at last");
  completer.join();
}

TEST_F(ObjectTest, DeliveriesOfAllSignalsRunInOrderOfEmissionOffTheEmittersThread)
{
  std::string heard; // touched by the object's line alone
  std::atomic<int> onEmitter{0};
  const Object copy = object;
  object
      .connect<int>("moved", [&, emitter = std::this_thread::get_id()](int n)
                    { onEmitter += std::this_thread::get_id() == emitter, heard += std::to_string(n); })
      .value();
  copy.connect<std::string, Value>("said", [&](const std::string& text, const Value& value) { heard += text + value.dump(); }).value();
  copy.connect<int, int>("moved", [](int, int) { ADD_FAILURE() << "called with an argument that was not emitted"; }).value();
  std::string emitted;
  for (int i = 0; i < 100; ++i)
  {
    arm->moved(i);
    arm->said("s", {{"i", i}});
    emitted += std::to_string(i) + "s" + Value{{"i", i}}.dump();
  }
  ASSERT_TRUE(object.delivered().wait(waiting::bound)) << "what was emitted stands in the line already";
  EXPECT_EQ(heard, emitted);
  EXPECT_EQ(onEmitter, 0);
  EXPECT_EQ(errorOf([&] { object.connect<int>("shouted", [](int) {}).value(); }).kind(), Kind::UnknownMethod);
}

TEST_F(ObjectTest, DisconnectDropsDeliveriesThatStandInTheLineThroughAnyHandle)
{
  for (const bool throughAnother : {false, true})
  {
    SCOPED_TRACE(throughAnother ? "through another handle, the first one gone" : "through the same handle");
    Event blocked, release;
    std::atomic<int> heard{0};
    auto handle = std::make_unique<Object>(service);
    const auto blocker = handle->connect<int>("moved", [&](int) { blocked.set(), release.wait(); }).value();
    const auto link = handle->connect<int>("moved", [&](int) { ++heard; }).value();
    for (int i = 0; i < 3; ++i)
      arm->moved(i);
    ASSERT_TRUE(blocked.wait());
    const auto passed = handle->delivered();
    if (throughAnother)
      handle = std::make_unique<Object>(service);
    handle->disconnect(link);
    handle->disconnect(link);
    release.set();
    ASSERT_TRUE(passed.wait(waiting::bound));
    EXPECT_EQ(heard, 0);
    handle->disconnect(blocker);
    EXPECT_EQ(arm->moved.connectionCount(), 0u);
  }
}

TEST_F(ObjectTest, ConnectionOutlivesItsHandleAndDisconnectWaitsForTheRunningDelivery)
{
  Event entered, never;
  std::atomic<bool> ended{false};
  const auto link = Object(service)
                        .connect<int>("moved",
                                      [&](int)
                                      {
                                        entered.set();
                                        EXPECT_TRUE(waiting::eventually([&] { return arm->moved.connectionCount() == 0; }));
                                        never.wait(20ms);
                                        ended = true;
                                      })
                        .value();
  arm->moved(1);
  ASSERT_TRUE(entered.wait());
  object.disconnect(link);
  EXPECT_TRUE(ended);
}

TEST_F(ObjectTest, DeliveryMayDisconnectItselfAndCallItsEmitter)
{
  std::atomic<int> heard{0};
  vu::SignalLink link = 0;
  link = object
             .connect<int>("moved",
                           [&](int n)
                           {
                             ++heard;
                             object.disconnect(link);
                             EXPECT_EQ(object.call<int>("add", n, 1), n + 1);
                             arm->moved(n);
                           })
             .value();
  arm->moved(1);
  arm->moved(2);
  ASSERT_TRUE(object.delivered().wait(waiting::bound));
  EXPECT_EQ(heard, 1);
}

TEST_F(ObjectTest, EndRefusesNewCallsAndWaitsForThoseUnderWay)
{
  const auto link = object.connect<int>("moved", [](int) {}).value();
  const auto call = object.async<void>("block");
  ASSERT_TRUE(arm->entered.wait());
  std::thread ender(
      [&]
      {
        service->end();
        EXPECT_TRUE(arm->ended);
        arm.reset();
      });
  EXPECT_TRUE(waiting::eventually([&] { return !service->enter(); }));
  EXPECT_EQ(errorOf([&] { object.call<int>("add", 1, 2); }).kind(), Kind::UnknownService);
  EXPECT_EQ(errorOf([&] { object.async<int>("add", 1, 2).value(); }).kind(), Kind::UnknownService);
  EXPECT_EQ(errorOf([&] { object.connect<int>("moved", [](int) {}).value(); }).kind(), Kind::UnknownService);
  arm->release.set();
  ender.join();
  EXPECT_FALSE(call.hasError());
  object.disconnect(link); // the signal has gone
  arm = std::make_unique<Arm>();
}

TEST_F(ObjectTest, PostedCallWithoutRoomIsRefusedByName)
{
  const auto one = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{1, 1, 0, 1s});
  vu::ObjectBuilder narrow("Narrow", one);
  narrow.advertiseMethod({"block", "Block", {}, {}}, arm.get(), &Arm::block);
  const Object handle(narrow.object());
  const auto first = handle.async<void>("block");
  ASSERT_TRUE(arm->entered.wait());
  const auto error = errorOf([&] { handle.async<void>("block"); });
  EXPECT_EQ(error.kind(), Kind::Overloaded);
  EXPECT_EQ(error.module() + "." + error.method(), "Narrow.block");
  arm->release.set();
  EXPECT_FALSE(first.hasError());
  one->close();
}
