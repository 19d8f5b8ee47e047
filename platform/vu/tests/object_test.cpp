#include <atomic>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>

#include <vu/object.hpp>
#include <vu/objectbuilder.hpp>

#include <testing/waiting.hpp>

using namespace std::chrono_literals;
using TestSupport::Event;
using vu::Future;
using vu::Object;
using vu::ServiceError;
using vu::Value;
using Kind = ServiceError::Kind;

namespace
{

struct Arm
{
  int add(int left, const std::int8_t& right) { return left + right; }
  std::string join(const std::vector<std::string>& words, bool) const { return words.at(0); }
  void fail() { throw std::range_error("out of reach"); }
  std::string place() { return vu::currentCaller() + (std::ostringstream() << std::this_thread::get_id()).str(); }
  Future<std::string> later() { return promise.future(); }

  vu::Promise<std::string> promise;
  vu::Signal<int> moved;
  vu::Signal<std::string, Value> said;
};

class ObjectTest : public testing::Test
{
protected:
  ObjectTest()
  {
    builder.advertiseMethod({"add", "", {}, {}}, &arm, &Arm::add);
    builder.advertiseMethod({"join", "", {}, {}}, &arm, &Arm::join);
    builder.advertiseMethod({"fail", "", {}, {}}, &arm, &Arm::fail);
    builder.advertiseMethod({"place", "", {}, {}}, &arm, &Arm::place);
    builder.advertiseMethod({"later", "", {}, {}}, &arm, &Arm::later);
    builder.advertiseSignal("said", arm.said);
    builder.advertiseSignal("moved", arm.moved);
  }

  ~ObjectTest() override { pool->close(); }

  static auto refusal(Kind kind, const std::string& text = "")
  {
    return testing::Throws<ServiceError>(testing::AllOf(testing::Property(&ServiceError::kind, kind),
                                                        testing::Property(&ServiceError::description, testing::HasSubstr(text))));
  }

  const std::shared_ptr<vu::ThreadPool> pool = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{2, 16, 64, 1s});
  Arm arm;
  vu::ObjectBuilder builder{"Arm", pool};
  const std::shared_ptr<vu::LocalObject> service = builder.object();
  Object object{service};
};

} // namespace

TEST_F(ObjectTest, ArgumentsThatDoNotFitAreRefusedByMethodAndPosition)
{
  const std::vector<std::tuple<std::string, Value, Kind, std::string>> cases{
      {"nothing", Value::array(), Kind::UnknownMethod, "the service Arm has no method nothing"},
      {"add", {1}, Kind::InvalidArguments, "Arm.add takes 2 arguments, 1 given"},
      {"add", Value::object(), Kind::InvalidArguments, "Arm.add takes 2 arguments"},
      {"add", {1, 1.5}, Kind::InvalidArguments, "Arm.add: argument 2: expected int, found number"},
      {"add", {1, 128}, Kind::InvalidArguments, "Arm.add: argument 2: expected int, found 128, which is out of range"},
      {"join", {{"a", 1}, true}, Kind::InvalidArguments, "Arm.join: argument 1: expected string, found number"}};
  for (const auto& [method, arguments, kind, text] : cases)
    for (const auto& result : {object.callValues(method, arguments), object.asyncValues(method, arguments)})
      EXPECT_THAT([&] { result.value(); }, refusal(kind, text)) << method << arguments;
  EXPECT_EQ(object.call<int>("add", 100, -128), -28);
  EXPECT_THROW(object.call<void>("fail"), std::range_error) << "the error arrives as it was thrown";
  const auto unfit = refusal(Kind::Service, "the result does not fit: expected string");
  EXPECT_THAT([&] { object.call<std::string>("add", 1, 2); }, unfit);
  EXPECT_THAT([&] { object.async<std::string>("add", 1, 2).value(); }, unfit);
  EXPECT_THAT([&] { object.connect<int>("shouted", [](int) {}).value(); }, refusal(Kind::UnknownMethod));
  EXPECT_THAT([] { Object().call<void>("add"); }, testing::ThrowsMessage<std::runtime_error>("This object is null"));
}

TEST_F(ObjectTest, CallsRunOnTheCallersThreadAndPostedOnesOnThePoolBothForTheCaller)
{
  const vu::CallerScope caller("alice");
  EXPECT_EQ(object.call<std::string>("place"), arm.place());
  const auto posted = object.async<std::string>("place").value();
  EXPECT_NE(posted, arm.place());
  EXPECT_TRUE(posted.starts_with("alice"));
}

TEST_F(ObjectTest, MethodThatGivesAFutureIsWaitedForAndHoldsNoThreadWhenPosted)
{
  std::vector<Future<std::string>> posted; // more than the pool may have threads
  for (int i = 0; i < 40; ++i)
    posted.push_back(object.async<std::string>("later"));
  EXPECT_TRUE(object.async<std::string>("place").wait(TestSupport::patience));
  EXPECT_FALSE(posted.back().isFinished());
  const std::jthread completer([&] { arm.promise.setValue("at last"); });
  EXPECT_EQ(object.call<std::string>("later"), "at last");
  for (const auto& future : posted)
    EXPECT_EQ(future.value(), "at last");
}

TEST_F(ObjectTest, DeliveriesOfAllSignalsRunInOrderOfEmissionOffTheEmittersThread)
{
  std::string heard, emitted; // heard is touched by the object's line alone
  std::atomic<int> onEmitter{0};
  const Object copy = object;
  const auto onMoved = [&, emitter = std::this_thread::get_id()](int n)
  { onEmitter += std::this_thread::get_id() == emitter, heard += std::to_string(n); };
  object.connect<int>("moved", onMoved).value();
  copy.connect<std::string, Value>("said", [&](const std::string& text, const Value& value) { heard += text + value.dump(); }).value();
  copy.connect<int, int>("moved", [](int, int) { ADD_FAILURE() << "called with an argument that was not emitted"; }).value();
  for (int i = 0; i < 100; ++i)
  {
    arm.moved(i);
    arm.said("s", i);
    emitted += std::to_string(i) + "s" + std::to_string(i);
  }
  ASSERT_TRUE(object.delivered().wait(TestSupport::patience)) << "what was emitted stands in the line already";
  EXPECT_EQ(heard, emitted);
  EXPECT_EQ(onEmitter, 0);
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
    arm.moved(1);
    ASSERT_TRUE(blocked.wait());
    const auto passed = handle->delivered();
    if (throughAnother)
      handle = std::make_unique<Object>(service);
    handle->disconnect(link);
    handle->disconnect(link);
    release.set();
    ASSERT_TRUE(passed.wait(TestSupport::patience));
    EXPECT_EQ(heard, 0);
    handle->disconnect(blocker);
    EXPECT_EQ(arm.moved.connectionCount(), 0u);
  }
}
