#include <atomic>
#include <thread>

#include <gmock/gmock.h>

#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zbproxy.hpp>

#include <testing/errors.hpp>
#include <testing/waiting.hpp>

using namespace std::chrono_literals;
using TestSupport::Event;
using ZB::ZBBroker;
using ZB::ZBError;
using ZB::ZBModule;
using ZB::ZBProxy;
using Kind = vu::ServiceError::Kind;

namespace
{

struct Unsendable
{
};
void to_json(vu::Value&, const Unsendable&) { throw std::range_error("cannot be sent"); }

struct Hooks
{
  std::function<void()> constructing = [] {};
  std::function<void()> destroying = [] {};
  std::function<std::string()> called = [] { return "called"; };
  vu::Promise<int> later{};
};

class TestModule : public ZBModule
{
public:
  TestModule(std::shared_ptr<ZBBroker> broker, const std::string& name, Hooks hooks = {})
      : ZBModule(std::move(broker), name), _hooks(std::move(hooks))
  {
    functionName("act", name, "Do what the test wants");
    setReturn("text", "");
    bindMethod(this, &TestModule::act);
    functionName("later", name, "Give a future");
    bindMethod(this, &TestModule::later);
    functionName("fail", name, "Fail with an error of some other kind");
    addParam("text", "");
    bindMethod(this, &TestModule::fail);
    _hooks.constructing();
  }
  ~TestModule() override { _hooks.destroying(); }

  std::string httpGet() override { return "<p>" + act() + "</p>"; }
  std::string act() { return _hooks.called(); }
  vu::Future<int> later() { return _hooks.later.future(); }
  void fail(const std::string& text) { throw std::runtime_error(text); }

private:
  const Hooks _hooks;
};

class BrokerTest : public testing::Test
{
protected:
  ~BrokerTest() override { broker->shutdown(); }

  TestModule& make(const std::string& name, Hooks hooks = {}) { return broker->createModule<TestModule>(name, std::move(hooks)); }
  ZBProxy proxy(const std::string& name) const { return ZBProxy(broker, name); }

  /// As "Module.method: description".
  static auto refused(const std::string& text, Kind kind)
  {
    const auto told = [](const ZBError& error) { return error.module() + "." + error.method() + ": " + error.description(); };
    return testing::Throws<ZBError>(testing::AllOf(testing::ResultOf(told, text), testing::Property(&ZBError::kind, kind)));
  }

  const std::shared_ptr<ZBBroker> broker = ZBBroker::create({{2, 80, 4, 1s}, vu::Value::object()});
};

} // namespace

TEST_F(BrokerTest, ServiceAppearsWhenItsConstructorHasReturned)
{
  const auto constructing = [&]
  {
    EXPECT_EQ(vu::currentCaller(), "Arm");
    EXPECT_EQ(broker->getProxy("Arm"), nullptr);
    EXPECT_THAT([&] { make("Arm"); }, testing::Throws<ZBError>(testing::Property(&ZBError::module, "Arm")));
    EXPECT_TRUE(broker->session()->isReserved("Arm")) << "a refused one gives up nothing";
  };
  EXPECT_EQ(make("Arm", {.constructing = constructing}).getName(), "Arm");
  ASSERT_NE(broker->getProxy("Arm"), nullptr);
  EXPECT_EQ(broker->getProxy("Arm")->call<std::string>("act"), "called");
  EXPECT_EQ(broker->getSpecialisedProxy<ZBProxy>("Arm")->name(), "Arm");
  EXPECT_EQ(broker->httpGet("Arm"), "<p>called</p>");
}

TEST_F(BrokerTest, ModuleWhoseConstructorThrowsLeavesNothingBehind)
{
  vu::Future<vu::Object> waiting;
  const auto constructing = [&]
  {
    waiting = broker->session()->whenConstructed("Arm");
    throw std::length_error("too long");
  };
  EXPECT_THROW(make("Arm", {.constructing = constructing}), std::length_error);
  EXPECT_TRUE(waiting.wait(TestSupport::patience) && waiting.hasError());
  EXPECT_FALSE(broker->session()->isReserved("Arm"));
  EXPECT_TRUE(broker->modules().empty());

  // A name that somebody else published meanwhile stays theirs.
  const auto theirs = vu::ObjectBuilder("Arm", broker->pool()).object();
  EXPECT_THROW(make("Arm", {.constructing = [&] { broker->session()->publish(theirs); }}), vu::ServiceError);
  EXPECT_TRUE(broker->modules().empty());
  EXPECT_EQ(broker->session()->find("Arm"), theirs);
  EXPECT_TRUE(theirs->enter());
  broker->session()->withdraw("Arm");
  make("Arm");
}

TEST_F(BrokerTest, RemovedModuleRefusesNewCallsAndOutlivesThoseUnderWay)
{
  Event entered, release;
  std::atomic<bool> ended{false};
  Hooks hooks;
  hooks.called = [&]
  {
    entered.set();
    ended = release.wait();
    return "late";
  };
  hooks.destroying = [&]
  {
    EXPECT_TRUE(ended);
    EXPECT_EQ(vu::currentCaller(), "Arm");
    // By now the name is free: this module's end must not give up another's reservation.
    broker->session()->reserve("Arm");
  };
  make("Arm", hooks);
  const vu::Object handle = proxy("Arm");
  const auto call = handle.async<std::string>("act");
  ASSERT_TRUE(entered.wait());
  std::thread remover([&] { broker->removeModule("Arm"); });
  EXPECT_TRUE(TestSupport::eventually([&] { return broker->getProxy("Arm") == nullptr; }));
  // Refused a moment after it has left the directory, while the call is still under way.
  const auto refused = [&] { return handle.callValues("none", vu::Value::array()).error() == "there is no service Arm any more"; };
  EXPECT_TRUE(TestSupport::eventually(refused));
  EXPECT_THROW(handle.connect<int>("moved", [](int) {}).value(), vu::ServiceError);
  release.set();
  remover.join();
  EXPECT_EQ(call.value(), "late");
  EXPECT_TRUE(broker->session()->isReserved("Arm"));
}

TEST_F(BrokerTest, ShutsDownInReverseOrderButNotOnItsPoolAndEndsWaits)
{
  std::string destroyed;
  for (const std::string name : {"A", "B", "C"})
    make(name, {.destroying = [&, name]
                {
                  destroyed += name;
                  EXPECT_EQ(broker->getProxy("A") != nullptr, name != "A") << "what was loaded before is still there";
                }});
  const auto wait = broker->session()->service("D", "", -1);
  const vu::Object handle = proxy("A");
  broker->pool()->post(
      [&]
      {
        EXPECT_THROW(broker->removeModule("A"), std::logic_error);
        EXPECT_THROW(broker->shutdown(), std::logic_error);
      });
  broker->pool()->waitUntilIdle();
  EXPECT_EQ(broker->modules(), (std::vector<std::string>{"A", "B", "C"}));
  broker->shutdown();
  EXPECT_EQ(destroyed, "CBA");
  EXPECT_TRUE(wait.hasError());
  EXPECT_THROW(handle.async<std::string>("act").value(), vu::ServiceError);
  EXPECT_THROW(broker->httpGet("A"), vu::ServiceError);
}

TEST_F(BrokerTest, EveryFailureOfACallThroughAProxyIsAZBError)
{
  Hooks hooks;
  hooks.called = []() -> std::string { throw vu::ServiceError("Deep", "inner", "not allowed", Kind::NotAllowed); };
  make("Arm", hooks);
  const auto arm = proxy("Arm");
  const std::vector<std::tuple<std::function<void()>, std::string, Kind>> cases{
      {[&] { arm.call("fail", "burnt"); }, "Arm.fail: burnt", Kind::Service},
      {[&] { arm.call("act"); }, "Deep.inner: not allowed", Kind::NotAllowed},
      {[&] { arm.pCall("fail", Unsendable()); }, "Arm.fail: cannot be sent", Kind::Service},
      {[&] { proxy("Leg").call("kick"); }, "Leg.kick: there is no service Leg", Kind::UnknownService},
      {[&] { proxy("Leg").pCall("kick"); }, "Leg.kick: there is no service Leg", Kind::UnknownService}};
  for (const auto& [call, text, kind] : cases)
    EXPECT_THAT(call, refused(text, kind));
  EXPECT_FALSE(vu::Object(proxy("Leg")));
  const ZBError here("Arm", "move", "text");
  EXPECT_NE(std::string(here.location().file_name()).find("broker_test"), std::string::npos);
}

TEST_F(BrokerTest, PostedCallThatFailsLaterIsLoggedWithItsTask)
{
  vu::log::Capture log;
  const Hooks hooks;
  make("Arm", hooks);
  const int failing = proxy("Arm").pCall("fail", "burnt");
  const int late = proxy("Arm").pCall("later");
  hooks.later.setError("in the end");
  broker->pool()->waitUntilIdle();
  for (const auto& [task, text] : {std::pair(failing, "fail failed: burnt"), std::pair(late, "later failed: in the end")})
    EXPECT_EQ(log.count(vu::log::Level::Warning, "posted call " + std::to_string(task) + " of Arm." + text), 1u) << text;
}

TEST_F(BrokerTest, PoolGrowsPastBlockedCallsAndRefusesCallsButNoTasksBeyondItsBound)
{
  Event busy(80), release;
  std::atomic<int> freed{0};
  Hooks hooks;
  hooks.called = [&]
  {
    busy.set();
    freed += release.wait();
    return "";
  };
  make("Arm", hooks);
  const auto arm = proxy("Arm");
  for (int i = 0; i < 80; ++i)
    arm.pCall("act");
  ASSERT_TRUE(busy.wait());
  for (int i = 0; i < 4; ++i)
    arm.pCall("act");
  EXPECT_THAT([&] { arm.pCall("act"); },
              refused("Arm.act: the host is overloaded: all its threads are busy and 4 calls wait; try again later", Kind::Overloaded));
  broker->pool()->post([&] { ++freed; });
  release.set();
  broker->pool()->waitUntilIdle();
  arm.pCall("act");
  broker->pool()->waitUntilIdle();
  EXPECT_EQ(freed, 86);
}

TEST_F(BrokerTest, LibraryIsLoadedOrRefusedWithItsNameAndTheReason)
{
  const auto expectFault = [&](const char* file, const char* text)
  { EXPECT_THAT(TestSupport::errorOf([&] { broker->loadLibrary(file); }), testing::HasSubstr(text)); };
  expectFault("/nowhere/libmissing.so", "/nowhere/libmissing.so: cannot open shared object file");
  expectFault(__FILE__, __FILE__);
  expectFault(NO_MODULE, NO_MODULE " is no module: it has no entry point zbLoadModule");
  EXPECT_TRUE(broker->modules().empty());
  broker->loadLibrary(TEST_MODULE);
  expectFault(TEST_MODULE, "there is a service Loaded already");
  EXPECT_EQ(proxy("Loaded").call<int>("answer"), 42);
}

TEST_F(BrokerTest, CallsEitherSucceedOrFindNoServiceWhileModulesComeAndGo)
{
  std::atomic<bool> over{false};
  std::atomic<int> alive{0}, succeeded{0};
  const auto called = [&]
  {
    EXPECT_EQ(alive, 1);
    return "called";
  };
  const Hooks hooks{[&] { ++alive; }, [&] { --alive; }, called};
  std::vector<std::jthread> callers;
  for (int i = 0; i < 3; ++i)
    callers.emplace_back(
        [&, i]
        {
          while (!over)
            try
            {
              const auto text = i == 0   ? broker->httpGet("Arm")
                                : i == 1 ? proxy("Arm").call<std::string>("act")
                                         : vu::Object(proxy("Arm")).async<std::string>("act").value();
              EXPECT_NE(text.find("called"), std::string::npos);
              ++succeeded;
            }
            catch (const std::exception& error)
            {
              // The null object is what a proxy without a service converts to.
              EXPECT_THAT(error.what(), testing::AnyOf(testing::StartsWith("there is no "), testing::StrEq("This object is null")));
            }
        });
  for (int round = 0; round < 100; ++round)
  {
    make("Arm", hooks);
    const int before = succeeded;
    EXPECT_TRUE(TestSupport::eventually([&] { return succeeded > before; }));
    broker->removeModule("Arm");
    EXPECT_EQ(alive, 0);
  }
  over = true;
  callers.clear();
  EXPECT_GE(succeeded, 100);
}
