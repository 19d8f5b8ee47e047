#include "fixture.hpp"

#include <gmock/gmock.h>

#include <vu/log.hpp>

using namespace GatewayTest;
using TestSupport::Journal;
using vu::RemoteSession;

namespace
{

Kind kindOf(const std::function<void()>& action) { return serviceErrorOf(action).kind(); }

/// Waits for a number of lines.
std::vector<std::string> waitFor(const Journal& journal, std::size_t count)
{
  EXPECT_TRUE(eventually([&] { return journal.lines().size() >= count; }));
  return journal.lines();
}

} // namespace

using WebSocket = GatewayFixture;

TEST_F(WebSocket, RemoteObjectWorksLikeTheOneInTheHost)
{
  begin();
  RemoteSession session(remote());
  EXPECT_EQ(session.services(), (std::vector<std::string>{"Bench", "Silent", "ZBMemory"}));
  const auto object = session.service("Bench").value();
  EXPECT_EQ(object.call<int>("add", 2, 3), 5);
  EXPECT_EQ(object.async<int>("add", 4, 5).value(), 9);
  EXPECT_EQ(object.call<std::string>("caller"), "local");
  EXPECT_EQ(vu::Value(object.description()), vu::Value(broker->session()->find("Bench")->description()));
  auto later = object.async<int>("later", std::string("k"));
  EXPECT_FALSE(later.isFinished());
  bench->finishLater("k", 42);
  EXPECT_EQ(later.value(), 42);
}

TEST_F(WebSocket, ErrorsArriveWhole)
{
  begin();
  RemoteSession session(remote());
  const auto object = session.service("Bench").value();
  const auto whole = [](const vu::ServiceError& error) { return error.module() + "." + error.method() + ": " + error.description(); };
  EXPECT_EQ(whole(serviceErrorOf([&] { object.call<void>("fail", std::string("broken")); })), "Bench.fail: broken");
  EXPECT_EQ(whole(serviceErrorOf([&] { object.call<int>("failedFuture"); })), "Bench.failedFuture: plain text");
  EXPECT_EQ(kindOf([&] { object.call<int>("subtract"); }), Kind::UnknownMethod);
  EXPECT_EQ(kindOf([&] { object.call<int>("add", 1); }), Kind::InvalidArguments);
  EXPECT_EQ(kindOf([&] { object.call<void>("fail", std::string("\xff")); }), Kind::InvalidArguments) << "no UTF-8 cannot be sent";
  EXPECT_EQ(kindOf([&] { session.service("Nobody").value().call<void>("act"); }), Kind::UnknownService);
  EXPECT_EQ(kindOf([&] { object.connect<int>("nothing", [](int) {}).value(); }), Kind::UnknownMethod);
  EXPECT_EQ(kindOf([&] { session.call("session.connect", vu::Value::array({1})).value(); }), Kind::InvalidArguments);
  EXPECT_EQ(kindOf([&] { RemoteSession session(remote("wrong")); }), Kind::NotAllowed);
  RemoteSession screen(remote("observer-token"));
  EXPECT_EQ(kindOf([&] { screen.service("Bench").value().call<int>("add", 1, 2); }), Kind::NotAllowed);
}

TEST_F(WebSocket, ServicesThatComeLaterAreWaitedForAndThoseThatGoHarmNobody)
{
  begin();
  RemoteSession session(remote());
  const auto late = session.service("Late", {}, 10000);
  EXPECT_EQ(kindOf([&] { session.service("Late", {}, 150).value(); }), Kind::UnknownService);
  broker->createModule<Bench>("Late");
  const auto guest = late.value();
  const auto link = guest.connect<int>("happened", [](int) {}).value();
  EXPECT_EQ(guest.call<int>("add", 1, 2), 3);
  broker->removeModule("Late");
  EXPECT_EQ(kindOf([&] { guest.call<int>("add", 1, 2); }), Kind::UnknownService);
  guest.disconnect(link);
  EXPECT_EQ(session.service("Bench").value().call<int>("add", 1, 2), 3);
}

TEST_F(WebSocket, SignalsAndEventsArriveUntilTheyAreDisconnected)
{
  begin();
  Journal seen;
  RemoteSession session(remote());
  const auto add = [&seen](const std::string& what)
  { return [&seen, what](const std::string& key, const vu::Value& value) { seen.add(what + key + value.dump()); }; };
  const auto object = session.service("Bench").value();
  const auto link = object.connect<int>("happened", [&](int number) { seen.add("number " + std::to_string(number)); }).value();
  session.subscribe("a", add("one ")).value();
  const auto everything = session.subscribe("*", add("all ")).value();
  bench->emit(7);
  memory->raise("b", 1);
  memory->raise("a", {"x"});
  const std::vector<std::string> expected{"number 7", "all b1", "one a[\"x\"]", "all a[\"x\"]"};
  EXPECT_THAT(waitFor(seen, 4), testing::UnorderedElementsAreArray(expected));
  object.disconnect(link);
  object.disconnect(everything);
  object.disconnect(vu::SignalBase::invalidSignalLink);
  object.call<void>("nothing"); // the host has heard of it by now
  EXPECT_EQ(bench->happened.connectionCount(), 0u);
  EXPECT_EQ(memory->eventRaised.connectionCount(), 1u);
  bench->emit(8);
  memory->raise("a", 2);
  EXPECT_EQ(waitFor(seen, 5).back(), "one a2");
}

TEST_F(WebSocket, NotificationsComeInTheOrderOfEmissionWhateverTheirKind)
{
  begin();
  RemoteSession session(remote());
  Journal seen;
  session.call("session.connect", vu::Value::array({"Bench", "happened"})).value();
  session.call("session.subscribe", vu::Value::array({"*"})).value();
  session.setNotificationCallback([&](const std::string& method, const vu::Value& params)
                                  { seen.add((method == "signal" ? params["arguments"][0] : params["value"]).dump()); });
  constexpr int emitters = 4;
  constexpr int each = 250;
  std::mutex turn;
  int number = 0;
  std::vector<std::jthread> threads;
  for (int t = 0; t < emitters; ++t)
    threads.emplace_back(
        [&, t]
        {
          for (int i = 0; i < each; ++i)
          {
            const std::lock_guard lock(turn); // makes the order known
            (t + i) % 2 ? bench->emit(number) : memory->raise("k", number);
            ++number;
          }
        });
  const auto values = waitFor(seen, emitters * each);
  for (int i = 0; i < emitters * each; ++i)
    ASSERT_EQ(values[static_cast<std::size_t>(i)], std::to_string(i));
}

TEST_F(WebSocket, AnswerNeverOvertakesWhatWasEmittedBefore)
{
  options.limits.queuedMessages = 100000000;
  options.limits.queuedBytes = std::size_t(1) << 30;
  begin();
  auto stream = open();
  std::jthread emitter(
      [this](const std::stop_token& stop)
      {
        while (!stop.stop_requested())
          bench->emit(-1);
      });
  // The link is known before its first notification, however long the answer
  // takes to write.
  const std::string id(200000, 'i');
  for (int i = 0; i < 5; ++i)
  {
    const auto link = open().ask(R"({"jsonrpc":"2.0","id":")" + id + R"(","method":"session.connect","params":["Bench","happened"]})");
    ASSERT_TRUE(link.contains("result")) << link;
  }
  ASSERT_TRUE(stream.ask(call("session.connect", R"(["Bench","happened"])")).contains("result"));
  emitter.request_stop();
  emitter.join();
  for (int i = 0; i < 50; ++i)
  {
    auto message = stream.ask(call("Bench.emit", "[" + std::to_string(i) + "]"));
    while (message.contains("method") && message["params"]["arguments"][0] == -1)
      message = stream.receive();
    ASSERT_EQ(message["params"]["arguments"][0], i);
    ASSERT_TRUE(stream.receive().contains("result"));
  }
}

TEST_F(WebSocket, ClientThatDoesNotKeepUpIsDisconnectedWithTheReasonAndNobodyElse)
{
  options.limits.queuedMessages = 100;
  options.limits.close = std::chrono::milliseconds(10000);
  begin();
  auto slow = open();
  slow.ask(call("session.subscribe", R"(["*"])"));
  Journal seen;
  RemoteSession other(remote());
  other.subscribe("last", [&](const std::string&, const vu::Value& value) { seen.add(value); }).value();
  vu::log::Capture log;
  const std::string large(100000, 'x');
  for (int i = 0; i < 20000 && log.count(vu::log::Level::Info, "does not keep up") == 0; ++i)
    memory->raise("large", large);
  ASSERT_EQ(log.count(vu::log::Level::Info, "does not keep up"), 1u);
  EXPECT_EQ(memory->eventRaised.connectionCount(), 1u);
  memory->raise("last", "good");
  EXPECT_TRUE(seen.waitFor("good", patience));
  EXPECT_NE(get("/metrics").body.find("\ntarvik_gateway_queue_drops_total 1\n"), std::string::npos);
  const auto reason = slow.reasonOfEnd();
  EXPECT_EQ(reason.code, websocket::close_code::policy_error);
  EXPECT_EQ(reason.reason, "this client does not keep up with its signals and answers");
}

TEST_F(WebSocket, ConnectionThatDropsWithCallsOpenLeavesNothingBehind)
{
  begin();
  {
    auto stream = open();
    stream.ask(call("session.connect", R"(["Bench","happened"])"));
    stream.send(call("Bench.later", R"(["k"])"));
    stream.send(call("Bench.block"));
    ASSERT_TRUE(bench->waitForLater("k"));
    ASSERT_TRUE(bench->waitForBlocked(1));
    stream.hangUp();
  }
  EXPECT_TRUE(eventually([this] { return bench->happened.connectionCount() == 0; }));
  bench->finishLater("k", 1);
  bench->unblocked.set();
  EXPECT_EQ(get("/Bench/?eval=Bench.add(1,2)").body, "3");
}

TEST_F(WebSocket, StoppedGatewayFailsEveryOpenCallAndTellsTheReason)
{
  begin();
  RemoteSession session(remote());
  Journal reasons;
  session.setClosedCallback([&](const std::string& reason) { reasons.add(reason); });
  const auto object = session.service("Bench").value();
  object.connect<int>("happened", [](int) {}).value();
  const auto open = object.async<int>("later", std::string("k"));
  ASSERT_TRUE(bench->waitForLater("k"));
  gateway->stop();
  EXPECT_EQ(kindOf([&] { open.value(); }), Kind::ConnectionLost);
  EXPECT_TRUE(reasons.waitFor("the host is shutting down", patience));
  EXPECT_FALSE(session.isConnected());
  EXPECT_EQ(kindOf([&] { object.call<int>("add", 1, 2); }), Kind::ConnectionLost);
  EXPECT_EQ(bench->happened.connectionCount(), 0u);
  bench->finishLater("k", 1);
}

TEST_F(WebSocket, RemovedTokenEndsItsConnectionsWithTheReasonAndNoOthers)
{
  begin();
  const auto number = options.access->add("short-lived", {"guest", Tarvik::Role::Admin});
  Journal reasons;
  RemoteSession session(remote("short-lived"));
  session.setClosedCallback([&](const std::string& reason) { reasons.add(reason); });
  const auto object = session.service("Bench").value();
  object.connect<int>("happened", [](int) {}).value();
  const auto open = object.async<int>("later", std::string("k"));
  const auto later = [this](const std::string& key)
  { return request("POST /rpc", {}, call("Bench.later", "[\"" + key + "\"]"), "short-lived"); };
  auto waiting = connect();
  asio::write(waiting, asio::buffer(later("over-http")));
  auto idle = connect();
  asio::write(idle, asio::buffer(request("GET /Bench/", {}, {}, "short-lived")));
  EXPECT_EQ(receive(idle).status, 200u);
  RemoteSession other(remote());
  ASSERT_TRUE(bench->waitForLater("k"));
  ASSERT_TRUE(bench->waitForLater("over-http"));

  options.access->remove(number);
  EXPECT_TRUE(reasons.waitFor("the token was removed", patience));
  EXPECT_EQ(kindOf([&] { open.value(); }), Kind::ConnectionLost);
  EXPECT_EQ(receive(waiting).status, 401u);
  EXPECT_THROW(receive(idle), boost::system::system_error);
  EXPECT_EQ(raw(later("again")).status, 401u);
  EXPECT_TRUE(eventually([this] { return bench->happened.connectionCount() == 0; }));
  bench->finishLater("k", 1); // what was under way ends for nobody
  bench->finishLater("over-http", 1);
  EXPECT_EQ(other.service("Bench").value().call<int>("add", 2, 3), 5);
}

TEST_F(WebSocket, ConnectionEndsWithTheTimeOfItsToken)
{
  begin();
  // Longer each time, for a machine that is too slow to come in at first.
  for (std::chrono::milliseconds time(500); time < patience; time *= 2)
    try
    {
      const auto name = "brief-" + std::to_string(time.count());
      options.access->add(name, {"guest", Tarvik::Role::Admin}, std::chrono::system_clock::now() + time);
      Journal reasons;
      RemoteSession session(remote(name));
      session.setClosedCallback([&](const std::string& reason) { reasons.add(reason); });
      EXPECT_TRUE(reasons.waitFor("the token has expired", patience));
      EXPECT_EQ(kindOf([&] { RemoteSession again(remote(name)); }), Kind::NotAllowed);
      return;
    }
    catch (const vu::ServiceError&)
    {
    }
  FAIL() << "not let in in time";
}

TEST_F(WebSocket, BadMessagesAreAnsweredAndTooLargeOnesEndTheConnection)
{
  options.limits.messageBytes = 10000;
  options.limits.openCalls = 2;
  options.limits.links = 1;
  begin();
  auto stream = open();
  EXPECT_EQ(stream.ask("{")["error"]["code"], -32700);
  EXPECT_EQ(stream.ask("[]")["error"]["code"], -32600);
  EXPECT_EQ(stream.ask(call("session.disconnect", R"(["x"])"))["error"]["code"], -32602);
  EXPECT_EQ(stream.ask(call("session.disconnect", "[99]"))["result"], nullptr);
  EXPECT_TRUE(stream.ask(R"([{"jsonrpc":"2.0","id":1,"method":"session.connect","params":["Bench","happened"]}])")[0].contains("result"));
  EXPECT_EQ(stream.ask(call("session.subscribe", R"(["*"])"))["error"]["code"], -32002);
  for (int i = 0; i < 2; ++i)
    stream.send(call("Bench.block"));
  ASSERT_TRUE(bench->waitForBlocked(2));
  EXPECT_EQ(stream.ask(call("Bench.nothing"))["error"]["code"], -32002);
  stream.send(std::string(10001, ' '));
  EXPECT_EQ(stream.reasonOfEnd().code, websocket::close_code::too_big);
}

TEST_F(WebSocket, SilenceEndsEitherEndUnlessTheOtherAnswersPings)
{
  options.limits.idle = std::chrono::milliseconds(300);
  begin();
  // A host that says no word after the handshake.
  asio::ip::tcp::acceptor acceptor(io, {asio::ip::make_address("127.0.0.1"), 0});
  websocket::stream<asio::ip::tcp::socket, false> mute(io);
  std::jthread host(
      [&]
      {
        acceptor.accept(mute.next_layer());
        mute.accept();
      });
  auto impatient = remote();
  impatient.idle = options.limits.idle;
  RemoteSession lively(impatient); // both ends answer
  impatient.url = "http://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port());
  RemoteSession deserted(impatient);
  auto dead = open();
  dead.ask(call("session.connect", R"(["Bench","happened"])"));
  EXPECT_TRUE(eventually([&] { return !deserted.isConnected(); }));
  EXPECT_TRUE(eventually([&] { return bench->happened.connectionCount() == 0; })) << "nobody reads there, not even pings";
  EXPECT_EQ(lively.service("Bench").value().call<int>("add", 1, 2), 3);
}

TEST(RemoteSessionConnect, NamesTheAddressOfAHostThatIsNotThere)
{
  asio::io_context io;
  const asio::ip::tcp::acceptor taken(io, {asio::ip::make_address("127.0.0.1"), 0}, false);
  const auto silent = "http://127.0.0.1:" + std::to_string(taken.local_endpoint().port());
  const auto error = serviceErrorOf([&] { RemoteSession session({silent, "t", std::chrono::milliseconds(100), {}}); });
  EXPECT_EQ(error.kind(), Kind::ConnectionLost);
  EXPECT_NE(error.description().find(silent), std::string::npos) << error.what();
  for (const auto* const url : {"", "ftp://x", "127.0.0.1:7110", "http://", "http://:80", "http://a:b", "http://a:1/path"})
    EXPECT_EQ(kindOf([&] { RemoteSession session({url, "t", std::chrono::milliseconds(100), {}}); }), Kind::InvalidArguments) << url;
}
