#include "fixture.hpp"

#include <vu/log.hpp>

using namespace GatewayTest;

class Http : public GatewayFixture
{
protected:
  Http() { options.limits.messageBytes = 100000; }
  void SetUp() override { begin(); }
};

TEST_F(Http, CallsAnswerWithTheResultOrTheErrorWhole)
{
  const auto call = [this](const std::string& method, const std::string& params)
  { return rpc(R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":)" + params + "}"); };
  EXPECT_EQ(call("Bench.add", "[2,3]"), (vu::Value{{"jsonrpc", "2.0"}, {"id", 1}, {"result", 5}}));
  EXPECT_EQ(call("Bench.nothing", "[]")["result"], nullptr);
  EXPECT_EQ(call("Bench.caller", "[]")["result"], "local");
  EXPECT_EQ(
      call("Bench.fail", R"(["broken"])")["error"],
      (vu::Value{{"code", -32000}, {"message", "broken"}, {"data", {{"module", "Bench"}, {"method", "fail"}, {"description", "broken"}}}}));
  EXPECT_EQ(call("Bench.failedFuture", "[]")["error"]["data"],
            (vu::Value{{"module", "Bench"}, {"method", "failedFuture"}, {"description", "plain text"}}));
  EXPECT_EQ(call("Bench.add", "[2]")["error"]["code"], -32602);
  EXPECT_EQ(call("Bench.add", R"([2,"3"])")["error"]["code"], -32602);
  EXPECT_EQ(call("Bench.loadBehavior", R"(["x"])")["error"]["code"], -32601) << "old names are for pages only";
  EXPECT_EQ(call("Nobody.add", "[]")["error"]["code"], -32601);
  EXPECT_EQ(call("session.services", "[]")["result"], (vu::Value{"Bench", "Silent", "ZBMemory"}));
  const auto description = call("session.describe", R"(["Bench"])")["result"];
  EXPECT_EQ(description["methods"][0]["name"], "add");
  EXPECT_EQ(description["methods"][0]["parameters"][1], (vu::Value{{"name", "right"}, {"description", ""}, {"type", "int"}}));
  EXPECT_EQ(description["signals"][0], (vu::Value{{"name", "happened"}, {"arguments", {"int"}}}));
  EXPECT_EQ(call("session.describe", R"(["Nobody"])")["error"]["data"]["unknown"], "service");
  EXPECT_EQ(call("session.connect", R"(["Bench","happened"])")["error"]["code"], -32601) << "needs a WebSocket";
}

TEST_F(Http, BatchIsAnsweredInItsOrderWithoutItsNotifications)
{
  const auto answers = rpc(R"([{"jsonrpc":"2.0","id":1,"method":"Bench.add","params":[1,1]},{"jsonrpc":"2.0","method":"Bench.nothing"},7,
                               {"jsonrpc":"2.0","id":"b","method":"Bench.fail","params":["x"]}])");
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(answers[0]["result"], 2);
  EXPECT_EQ(answers[1]["error"]["code"], -32600);
  EXPECT_EQ(answers[2]["id"], "b");
  const auto silent = post(R"({"jsonrpc":"2.0","method":"Bench.fail","params":["x"]})");
  EXPECT_EQ(silent.status, 204u);
  EXPECT_EQ(silent.body, "");
  EXPECT_EQ(rpc("{nonsense")["error"]["code"], -32700);
}

TEST_F(Http, FutureIsAnsweredWhenItCompletes)
{
  auto socket = connect();
  asio::write(socket, asio::buffer(request("POST /rpc", {}, R"({"jsonrpc":"2.0","id":1,"method":"Bench.later","params":["k"]})")));
  bench->finishLater("k", 42);
  EXPECT_EQ(vu::Value::parse(receive(socket).body)["result"], 42);
  asio::write(socket, asio::buffer(request("POST /rpc", {}, R"({"jsonrpc":"2.0","id":2,"method":"Bench.add","params":[1,2]})")));
  EXPECT_EQ(vu::Value::parse(receive(socket).body)["result"], 3) << "the connection goes on";
}

TEST_F(Http, RequestsWithoutAGoodTokenAreRefused)
{
  for (const auto* const target : {"/", "/Bench/", "/Bench/?eval=Bench.nothing()", "/rpc", "/nowhere"})
    for (const auto* const wrong : {"", "wrong", "admin-toke"})
    {
      const auto answer = get(target, {}, wrong);
      EXPECT_EQ(answer.status, 401u) << target << " " << wrong;
      EXPECT_EQ(answer.whole[http::field::www_authenticate], "Bearer realm=\"tarvik\"");
    }
  EXPECT_EQ(post("{}", {}, "wrong").status, 401u);
  EXPECT_EQ(get("/healthz", {}, "").body, "ok\n");
}

TEST_F(Http, RequestsForAnotherHostOrFromAnotherSiteAreRefused)
{
  for (const auto* const target : {"/", "/Bench/", "/Bench/?eval=Bench.nothing()", "/?token=admin-token", "/rpc"})
  {
    SCOPED_TRACE(target);
    EXPECT_EQ(get(target, {{"Host", "evil.example:" + port}}).status, 403u);
    EXPECT_EQ(get(target, {{"Origin", "http://evil.example"}}).status, 403u);
    EXPECT_EQ(get(target, {{"Origin", "http://127.0.0.1:1"}}).status, 403u);
  }
  const std::string call = R"({"jsonrpc":"2.0","id":1,"method":"Bench.add","params":[1,1]})";
  EXPECT_EQ(post(call, {{"Origin", "http://evil.example"}}).status, 403u);
  EXPECT_EQ(post(call, {{"Origin", "http://127.0.0.1:" + port}}).status, 200u);
  EXPECT_EQ(get("/Bench/?eval=Bench.nothing()", {{"Sec-Fetch-Site", "same-site"}}).status, 403u)
      << "a page of another port, with our cookie";
  EXPECT_EQ(get("/Bench/?eval=Bench.nothing()", {{"Sec-Fetch-Site", "same-origin"}}).status, 200u);
}

TEST_F(Http, TokenInTheAddressIsTradedForACookie)
{
  const auto traded = get("/?token=admin-token", {}, "");
  EXPECT_EQ(traded.status, 303u);
  EXPECT_EQ(traded.whole[http::field::location], "/");
  const std::string cookie(traded.whole[http::field::set_cookie]);
  EXPECT_EQ(cookie, "tarvik_" + port + "=admin-token; HttpOnly; SameSite=Strict; Path=/");
  EXPECT_EQ(get("/Bench/", {{"Cookie", cookie.substr(0, cookie.find(';'))}}, "").body, "<html><body>Bench</body></html>");
  EXPECT_EQ(get("/?token=wrong", {}, "").status, 401u);
  EXPECT_EQ(get("//evil.example/?token=admin-token", {}, "").status, 401u) << "no redirection to another host";
}

TEST_F(Http, PagesAreTheModulesOwn)
{
  const auto page = get("/Bench/");
  EXPECT_EQ(page.whole[http::field::content_type], "text/html; charset=utf-8");
  EXPECT_EQ(page.body, "<html><body>Bench</body></html>");
  EXPECT_EQ(get("/Bench").status, 302u);
  EXPECT_EQ(get("/Bench").whole[http::field::location], "/Bench/");
  EXPECT_EQ(get("/Silent/").status, 404u);
  EXPECT_EQ(get("/Nobody/").status, 404u);
  EXPECT_EQ(get("/Bench/other").status, 404u);
  EXPECT_EQ(get("/%").status, 400u);
  EXPECT_EQ(raw(request("DELETE /Bench/")).status, 405u);
  const auto index = get("/").body;
  EXPECT_NE(index.find("href=\"/Bench/\""), std::string::npos);
  EXPECT_EQ(index.find("Silent"), std::string::npos);
}

TEST_F(Http, EvalCarriesOutOneCallAndTellsHowItWent)
{
  struct Case
  {
    const char* expression;
    unsigned status;
    const char* body;
  };
  const Case cases[] = {
      {"Bench.add(2,3)", 200, "5"},
      {"Bench.echo(%27a%20b%27)", 200, "\"a b\""},
      {"Bench.nothing()", 200, "null"},
      {"Bench.caller()", 200, "\"local\""},
      {"Bench.loadBehavior('x/y')", 200, "\"preloaded x/y\""},
      {"Bench.unloadBehavior('x')", 200, "\"stopped x\""},
      {"Bench.later('eval')", 200, "null"},
      {"Bench.fail('broken')", 500, "broken\n"},
      {"Bench.failAtOnce()", 500, "not today\n"},
      {"Bench.failedFuture()", 500, "plain text\n"},
      {"Nobody.add()", 404, "there is no service Nobody\n"},
      {"Bench.subtract()", 404, nullptr},
      {"Bench.add(1)", 400, nullptr},
      {"Bench.add('1',2)", 400, nullptr},
      {"Bench.add(", 400, "position 11 of the expression: expected a text in quotes, a number, true, false or null, found its end\n"},
      {"Bench.add%2", 400, nullptr},
  };
  for (const auto& [expression, status, body] : cases)
  {
    SCOPED_TRACE(expression);
    const auto answer = get(std::string("/Bench/?eval=") + expression);
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.body, body ? body : answer.body);
  }
  EXPECT_EQ(get("/Nobody/?eval=Bench.nothing()").status, 404u);
}

TEST_F(Http, RolesBoundWhatATokenMayDo)
{
  EXPECT_EQ(get("/Bench/?eval=Bench.add(1,2)", {}, "observer-token").status, 403u);
  EXPECT_EQ(get("/Bench/?eval=Bench.add(1,2)", {}, "operator-token").status, 200u);
  EXPECT_EQ(get("/ZBMemory/?eval=ZBMemory.raise('k',1)", {}, "operator-token").status, 403u);
  EXPECT_EQ(get("/Bench/", {}, "observer-token").status, 200u);
  const std::string call = R"({"jsonrpc":"2.0","id":1,"method":"ZBMemory.raise","params":["k",1]})";
  EXPECT_EQ(rpc(call, "operator-token")["error"]["code"], -32001);
  EXPECT_EQ(rpc(call)["result"], nullptr);
}

TEST_F(Http, CallsAreLoggedWithTheirCallerAndNeverWithATokenInThem)
{
  vu::log::Capture log;
  get("/Bench/?eval=Bench.fail('broken')");
  rpc(R"({"jsonrpc":"2.0","id":1,"method":"Bench.add","params":[1,1]})", "operator-token");
  get("/?token=admin-token", {}, "");
  get("/Bench/", {}, "wrong-token");
  EXPECT_EQ(log.count(vu::log::Level::Info, "Bench.fail from 127.0.0.1:"), 1u);
  EXPECT_EQ(log.count(vu::log::Level::Info, "Bench.add from 127.0.0.1:"), 1u);
  for (const auto& line : log.lines())
  {
    EXPECT_EQ(line.caller == "tablet", line.message.starts_with("Bench.add from ")) << line.message;
    EXPECT_EQ(line.message.ends_with(": broken"), line.message.starts_with("Bench.fail from ")) << line.message;
  }
  for (const auto& line : log.lines())
    EXPECT_EQ(line.message.find("-token"), std::string::npos) << line.message;
}

TEST_F(Http, WhatIsTooLargeOrUnreadableIsRefusedByName)
{
  EXPECT_EQ(post(std::string(100001, ' ')).status, 413u);
  EXPECT_EQ(get("/Bench/", {{"X-Long", std::string(20000, 'x')}}).status, 431u);
  EXPECT_EQ(raw("NONSENSE\r\n\r\n").status, 400u);
  EXPECT_EQ(get("/rpc").status, 426u);
  EXPECT_EQ(raw(request("PUT /rpc")).status, 405u);
}

class HttpBounds : public GatewayFixture
{
};

TEST_F(HttpBounds, ConnectionsBeyondTheBoundAreToldSo)
{
  options.limits.connections = 1;
  begin();
  auto first = connect();
  asio::write(first, asio::buffer(request("GET /healthz")));
  EXPECT_EQ(receive(first).status, 200u);
  auto second = connect();
  EXPECT_EQ(receive(second).status, 503u);
}

TEST_F(HttpBounds, ClientThatSaysNothingIsDisconnected)
{
  options.limits.header = std::chrono::milliseconds(50);
  begin();
  auto socket = connect();
  asio::write(socket, asio::buffer(std::string("GET / HT")));
  char byte = 0;
  beast::error_code error;
  asio::read(socket, asio::buffer(&byte, 1), error);
  EXPECT_TRUE(error) << "read ends because the gateway has hung up";
}

TEST_F(HttpBounds, CallsThatWaitHoldNoThreadOfTheGateway)
{
  begin();
  std::vector<asio::ip::tcp::socket> waiting;
  for (int i = 0; i < 8; ++i)
  {
    waiting.push_back(connect());
    asio::write(waiting.back(), asio::buffer(request("GET /Bench/?eval=Bench.block()")));
  }
  ASSERT_TRUE(bench->waitForBlocked(8));
  EXPECT_EQ(get("/Bench/?eval=Bench.add(1,2)").body, "3");
  bench->unblock();
  for (auto& socket : waiting)
    EXPECT_EQ(receive(socket).status, 200u);
}

TEST_F(HttpBounds, StoppedGatewayAnswersWhatIsOpenAndTakesNothingMore)
{
  begin();
  auto open = connect();
  asio::write(open, asio::buffer(request("POST /rpc", {}, R"({"jsonrpc":"2.0","id":1,"method":"Bench.later","params":["k"]})")));
  auto idle = connect();
  asio::write(idle, asio::buffer(request("GET /healthz")));
  receive(idle);
  auto answered = std::async(std::launch::async, [&] { return receive(open).status; });
  ASSERT_TRUE(bench->waitForLater("k"));
  const auto begun = std::chrono::steady_clock::now();
  gateway->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
  EXPECT_EQ(answered.get(), 503u);
  beast::error_code error;
  asio::ip::tcp::socket late(io);
  late.connect({asio::ip::make_address("127.0.0.1"), static_cast<std::uint16_t>(std::stoi(port))}, error);
  EXPECT_TRUE(error);
  bench->finishLater("k", 1); // comes after the gateway's end, and harms nobody
}

TEST(GatewayListen, RefusesAddressesThatOthersCouldListenIn)
{
  Tarvik::Gateway::Options options;
  options.address = "0.0.0.0";
  options.port = 0;
  EXPECT_THROW(Tarvik::Gateway(options).listen(), std::runtime_error);
  options.insecure = true;
  EXPECT_NE(Tarvik::Gateway(options).listen(), "");
  options.address = "nonsense";
  EXPECT_THROW(Tarvik::Gateway(options).listen(), std::runtime_error);
  options.address = "127.0.0.1";
  Tarvik::Gateway first(options);
  const auto url = first.listen();
  options.port = static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
  EXPECT_THROW(Tarvik::Gateway(options).listen(), std::runtime_error) << "the port is taken";
  options.tlsCertificate = "/nonexistent.pem";
  EXPECT_THROW(Tarvik::Gateway(options).listen(), std::runtime_error) << "a certificate without a key";
}
