#include "fixture.hpp"

#include <set>

using namespace GatewayTest;

namespace
{

std::string batch(std::size_t entries, const std::string& entry)
{
  std::string text = "[" + entry;
  for (std::size_t i = 1; i < entries; ++i)
    text += "," + entry;
  return text + "]";
}

std::string later(const std::string& key) { return R"({"jsonrpc":"2.0","id":1,"method":"Bench.later","params":[")" + key + "\"]}"; }

} // namespace

using Fairness = GatewayFixture;

TEST_F(Fairness, BatchIsBoundByItsEntriesAndByWhatItsAnswersComeTo)
{
  options.limits.unsentBytes = 10000;
  begin();
  EXPECT_EQ(rpc(batch(100, call("session.whoami"))).size(), 100u);
  const auto refused = rpc(batch(101, call("Bench.emit", "[1]")));
  EXPECT_EQ(refused["error"]["code"], -32600) << "whole";
  const auto answers = rpc(batch(3, call("Bench.echo", "[\"" + std::string(4000, 'x') + "\"]")));
  std::multiset<std::string> kinds;
  for (const auto& answer : answers)
    kinds.insert(answer.contains("result") ? "result" : answer["error"]["code"].dump());
  EXPECT_EQ(kinds, (std::multiset<std::string>{"result", "result", "-32002"})) << "whichever came last";
}

TEST_F(Fairness, MethodsOfTheSessionCountAndDescriptionsFollowTheirServices)
{
  options.limits.openCalls = 1;
  begin();
  auto stream = open();
  EXPECT_EQ(stream.ask(call("session.describe", R"(["Bench"])"))["result"], vu::Value(broker->session()->find("Bench")->description()));
  EXPECT_TRUE(stream.ask(call("session.whoami")).contains("result")) << "its place is free again";
  broker->removeModule("Silent");
  EXPECT_EQ(stream.ask(call("session.describe", R"(["Silent"])"))["error"]["code"], -32601);
  broker->createModule<Bench>("Silent");
  EXPECT_EQ(stream.ask(call("session.describe", R"(["Silent"])"))["result"]["name"], "Silent");
  stream.send(later("k"));
  ASSERT_TRUE(bench->waitForLater("k"));
  EXPECT_EQ(stream.ask(call("session.whoami"))["error"]["code"], -32002);
  bench->finishLater("k", 1);
}

TEST_F(Fairness, ConnectionHasFewCallsOnThePoolAndAnyNumberOfFuturesAndItsStopsGoAhead)
{
  options.limits.runningCalls = 2;
  begin();
  auto crowd = open();
  for (int i = 0; i < 20; ++i)
    crowd.send(later(std::to_string(i)));
  ASSERT_TRUE(bench->waitForLater("19")) << "what has begun and is under way keeps no place";
  for (int i = 0; i < 4; ++i)
    crowd.send(call("Bench.block"));
  crowd.send(later("in the line"));
  ASSERT_TRUE(bench->waitForBlocked(2));
  EXPECT_EQ(crowd.ask(call("Bench.stopBehavior", R"(["x"])"))["result"], "x") << "ahead of the line";
  EXPECT_EQ(rpc(call("Bench.add", "[1,2]"))["result"], 3) << "others do not stand in it";
  EXPECT_FALSE(bench->seen.waitFor("block 3", std::chrono::milliseconds(0)));
  crowd.hangUp();
  EXPECT_TRUE(
      eventually([this] { return get("/metrics").body.find("tarvik_gateway_connections{kind=\"websocket\"} 0") != std::string::npos; }));
  bench->unblocked.set();
  EXPECT_EQ(rpc(call("Bench.add", "[1,2]"))["result"], 3);
  broker->pool()->waitUntilIdle();
  EXPECT_FALSE(bench->seen.waitFor("later in the line", std::chrono::milliseconds(0))) << "nobody is there for it any more";
}

TEST_F(Fairness, LongMessagesKeepTheirPlaceAmongTheOthers)
{
  options.limits.runningCalls = 1;
  begin();
  auto stream = open();
  std::vector<std::string> expected;
  for (int i = 0; i < 40; ++i)
  {
    const auto key = std::to_string(i) + std::string(i % 2 ? 3 : 100000, 'x');
    expected.push_back("later " + key);
    stream.send(later(key));
  }
  ASSERT_TRUE(eventually([&] { return bench->seen.lines().size() == expected.size(); }));
  EXPECT_EQ(bench->seen.lines(), expected);
  EXPECT_EQ(rpc(call("Bench.echo", "[\"" + std::string(100000, 'x') + "\"]"))["result"].get<std::string>().size(), 100000u);
  EXPECT_EQ(rpc("[" + std::string(100000, ' '))["error"]["code"], -32700);
}

TEST_F(Fairness, ClientThatLeavesItsAnswersUnreadGetsThemAllWhenItDoesReadAndNoCallBeginsMeanwhile)
{
  options.limits.unsentBytes = 1 << 20;
  begin();
  constexpr int calls = 48;
  auto slow = open();
  bench->filler = std::string(400000, 'x');
  for (int i = 0; i < calls; ++i)
    slow.send(call("Bench.fill"));
  ASSERT_TRUE(eventually([this] { return bench->filled > 0; }));
  for (int i = 0; i < 100; ++i)
    rpc(call("Bench.add", "[1,2]"));
  EXPECT_LT(bench->filled, calls) << "the network holds a part of them, the host as much as it may";
  for (int i = 0; i < calls; ++i)
    ASSERT_EQ(slow.receive()["result"].get_ref<const std::string&>().size(), bench->filler.size());
}
