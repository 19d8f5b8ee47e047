#include "fixture.hpp"

#include <future>

#include <vu/log.hpp>

using namespace GatewayTest;

namespace
{

class Http : public GatewayFixture
{
protected:
  Http() { options.limits.messageBytes = 100000; }
  void SetUp() override { begin(); }
};

TEST_F(Http, CallsAnswerWithTheResultOrTheErrorWhole)
{
  const struct
  {
    const char* method;
    const char* params;
    const char* answer; ///< the result, or the error's code
  } cases[] = {
      {"Bench.add", "[2,3]", "5"},
      {"Bench.nothing", "[]", "null"},
      {"Bench.caller", "[]", "\"local\""},
      {"Bench.add", "[2]", "-32602"},
      {"Bench.add", R"([2,"3"])", "-32602"},
      {"Bench.loadBehavior", R"(["x"])", "-32601"}, // old names are for pages only
      {"Nobody.add", "[]", "-32601"},
      {"session.services", "[]", R"(["Bench","Silent","ZBMemory"])"},
      {"session.connect", R"(["Bench","happened"])", "-32601"}, // needs a WebSocket
  };
  const auto ask = [this](const std::string& method, const std::string& params) { return rpc(call(method, params)); };
  for (const auto& [method, params, expected] : cases)
  {
    const auto answer = ask(method, params);
    EXPECT_EQ((answer.contains("error") ? answer["error"]["code"] : answer["result"]).dump(), expected) << method << params;
  }
  EXPECT_EQ(
      ask("Bench.fail", R"(["broken"])")["error"],
      (vu::Value{{"code", -32000}, {"message", "broken"}, {"data", {{"module", "Bench"}, {"method", "fail"}, {"description", "broken"}}}}));
  EXPECT_EQ(ask("Bench.failedFuture", "[]")["error"]["data"],
            (vu::Value{{"module", "Bench"}, {"method", "failedFuture"}, {"description", "plain text"}}));
  const auto description = ask("session.describe", R"(["Bench"])")["result"];
  EXPECT_EQ(description["methods"][0]["name"], "add");
  EXPECT_EQ(description["methods"][0]["parameters"][1], (vu::Value{{"name", "right"}, {"description", ""}, {"type", "int"}}));
  EXPECT_EQ(description["signals"][0], (vu::Value{{"name", "happened"}, {"arguments", {"int"}}}));
  EXPECT_EQ(ask("session.describe", R"(["Nobody"])")["error"]["data"]["unknown"], "service");
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
}

TEST_F(Http, RequestsThatComeTogetherAreAnsweredInTheirOrder)
{
  auto socket = connect();
  beast::flat_buffer buffer;
  asio::write(socket, asio::buffer(request("POST /rpc", {}, call("Bench.later", R"(["k"])")) + request("GET /Bench/") +
                                   request("GET /nowhere/") + request("POST /rpc", {}, call("Bench.add", "[1,2]"))));
  bench->finishLater("k", 42);
  EXPECT_EQ(vu::Value::parse(receive(socket, std::move(buffer)).body)["result"], 42);
  EXPECT_EQ(receive(socket, std::move(buffer)).body, "<html><body>Bench</body></html>");
  EXPECT_EQ(receive(socket, std::move(buffer)).status, 404U);
  EXPECT_EQ(vu::Value::parse(receive(socket, std::move(buffer)).body)["result"], 3);
}

TEST_F(Http, RequestsOfStrangersAreRefused)
{
  for (const auto* const target : {"/", "/Bench/", "/Bench/?eval=Bench.nothing()", "/rpc", "/nowhere"})
  {
    SCOPED_TRACE(target);
    const auto answer = get(target, {}, "wrong");
    EXPECT_EQ(answer.status, 401u);
    EXPECT_EQ(answer.header[http::field::www_authenticate], "Bearer realm=\"tarvik\"");
    EXPECT_EQ(get(target, {{"Host", "evil.example:" + port}}).status, 403u);
  }
  EXPECT_EQ(get("/?token=admin-token", {{"Host", "evil.example:" + port}}, "").status, 403u);
  EXPECT_EQ(get("/healthz", {}, "").body, "ok\n");
  const auto add = call("Bench.add", "[1,1]");
  EXPECT_EQ(post(add, {{"Origin", "http://127.0.0.1:" + port}}).status, 200u);
  for (const auto* const site : {"cross-site", "same-site"}) // a page of another port, with our cookie
  {
    EXPECT_EQ(post(add, {{"Sec-Fetch-Site", site}}).status, 403u);
    EXPECT_EQ(get("/Bench/?eval=Bench.nothing()", {{"Sec-Fetch-Site", site}}).status, 403u);
    EXPECT_EQ(get("/rpc?x", {{"Sec-Fetch-Site", site}}).status, 403u);
  }
  EXPECT_EQ(get("/Bench/?eval=Bench.nothing()", {{"Sec-Fetch-Site", "same-origin"}}).status, 200u);
}

TEST_F(Http, SessionOfAPageHasACookieForPagesAndASecretForTheTab)
{
  const auto code = rpc(call("session.code"))["result"];
  EXPECT_EQ(code["seconds"], 60);
  const auto form = get("/Bench/", {{"Accept", "text/html,*/*"}}, "");
  EXPECT_EQ(form.status, 401U);
  EXPECT_NE(form.body.find("<form method=\"post\" action=\"/\">"), std::string::npos);
  EXPECT_EQ(form.header["Referrer-Policy"], "same-origin") << "else the form's origin would not be told";
  const auto enter = [this](const std::string& content) { return raw(request("POST /", {}, content, "")); };
  EXPECT_EQ(enter("token=wrong").status, 401U);
  EXPECT_EQ(enter(std::string(5000, 'x')).status, 413U);
  const Answer entered[] = {get("/?token=admin-token", {}, ""), get("/?code=" + code["code"].get<std::string>(), {}, ""),
                            enter("a=b&token=%20admin%2Dtoken+")};
  for (const auto& answer : entered)
  {
    EXPECT_EQ(answer.status, 200U);
    const std::string set(answer.header[http::field::set_cookie]);
    EXPECT_EQ(set.substr(set.find(';')), "; Max-Age=43200; HttpOnly; SameSite=Strict; Path=/");
    const Fields cookie{{"Cookie", set.substr(0, set.find(';'))}};
    const std::string mark = "name=\"tarvik-secret\" content=\"";
    const auto secret = answer.body.substr(answer.body.find(mark) + mark.size(), 64);
    EXPECT_EQ(get("/Bench/", cookie, "").body, "<html><body>Bench</body></html>");
    auto eval = cookie;
    eval.emplace_back("Referer", url + "/Bench/");
    EXPECT_EQ(get("/Bench/?eval=Bench.caller()", eval, "").body, "\"local\"");
    EXPECT_EQ(get("/Bench/?eval=Bench.raise('k',1)", eval, "").status, 403U) << "an operator's at most";
    EXPECT_EQ(post(call("Bench.caller"), cookie, "").status, 401U);
    EXPECT_EQ(post(call("Bench.raise", R"(["k",1])"), cookie, secret).status, 200U);
    EXPECT_EQ(rpc(call("session.code"), secret)["error"]["code"], -32001);
  }
}

TEST_F(Http, PagesAreTheModulesOwnAndMayDoNoMoreThanTheyNeed)
{
  const auto page = get("/Bench/");
  EXPECT_EQ(page.header[http::field::content_type], "text/html; charset=utf-8");
  EXPECT_EQ(page.body, "<html><body>Bench</body></html>");
  EXPECT_EQ(get("/Bench").header[http::field::location], "/Bench/");
  EXPECT_EQ(get("/Bench?a=%20").header[http::field::location], "/Bench/?a=%20");
  EXPECT_EQ(get("/Bench?eval=Bench.add(1,2)").body, "3");
  const std::pair<const char*, unsigned> others[] = {
      {"GET /Bench?", 302}, {"GET /?eval=Bench.nothing()", 404}, {"GET /Silent/", 404},   {"GET /Nobody/", 404}, {"GET /Bench/other", 404},
      {"GET /%", 400},      {"GET ?eval=Bench.nothing()", 400},  {"DELETE /Bench/", 405}, {"GET /rpc", 426},     {"PUT /rpc", 405}};
  for (const auto& [line, status] : others)
    EXPECT_EQ(raw(request(line)).status, status) << line;
  const auto index = get("/modules").body;
  EXPECT_NE(index.find("href=\"/Bench/\""), std::string::npos);
  EXPECT_EQ(index.find("Silent"), std::string::npos);

  const std::string strict = "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
                             "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
  for (const auto* const target : {"/", "/healthz", "/Silent/", "/Bench/?eval=Bench.caller()"})
    EXPECT_EQ(get(target).header["Content-Security-Policy"], strict) << target;
  EXPECT_EQ(page.header["Content-Security-Policy"], "default-src 'none'; script-src 'unsafe-inline'; connect-src 'self'; "
                                                    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
  EXPECT_EQ(get("/").header["Referrer-Policy"], "no-referrer");
  for (const auto& [name, value] : {std::pair{"X-Content-Type-Options", "nosniff"},
                                    {"X-Frame-Options", "DENY"},
                                    {"Referrer-Policy", "same-origin"},
                                    {"Cache-Control", "no-store"},
                                    {"Cross-Origin-Resource-Policy", "same-origin"}})
    EXPECT_EQ(page.header[name], value) << name;
}

TEST_F(Http, EvalCarriesOutOneCallAndTellsHowItWent)
{
  const struct
  {
    const char* expression;
    unsigned status;
    const char* body;
    const char* bearer = token;
  } cases[] = {
      {"Bench.add(2,3)", 200, "5"},
      {"Bench.echo(%27a%20+%2b%c3%A4%27)", 200, "\"a ++\xc3\xa4\""},
      {"Bench.nothing()", 200, "null"},
      {"Bench.caller()", 200, "\"screen\"", "observer-token"},
      {"Bench.loadBehavior('x/y')", 200, "\"x/y\""},
      {"Bench.unloadBehavior('x')", 200, "\"x\""},
      {"Bench.later('eval')", 200, "null"},
      {"Bench.fail('broken')", 500, "broken\n"},
      {"Bench.failedFuture()", 500, "plain text\n"},
      {"Nobody.add()", 404, "there is no service Nobody\n"},
      {"Bench.subtract()", 404, nullptr},
      {"Bench.add(1)", 400, nullptr},
      {"Bench.add('1',2)", 400, nullptr},
      {"Bench.add(", 400, "position 11 of the expression: expected a text in quotes, a number, true, false or null, found its end\n"},
      {"Bench.add%2", 400, nullptr},
      {"Bench.add%zz", 400, nullptr},
      {"Bench.add(1,2)", 403, "the role observer may not call Bench.add\n", "observer-token"},
      {"Bench.raise('k',1)", 403, "the role operator may not call Bench.raise\n", "operator-token"},
  };
  for (const auto& [expression, status, body, bearer] : cases)
  {
    SCOPED_TRACE(expression);
    const auto answer = get(std::string("/Bench/?eval=") + expression, {}, bearer);
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.body, body ? body : answer.body);
  }
  EXPECT_EQ(get("/Nobody/?eval=Bench.nothing()").status, 404u);
  EXPECT_EQ(rpc(call("Bench.raise", R"(["k",1])"), "operator-token")["error"]["code"], -32001);
  EXPECT_EQ(rpc(call("Bench.raise", R"(["k",1])"))["result"], nullptr);
}

TEST_F(Http, ControlCallsAreLoggedWithWhoWhereWhatAndResultAndNoTokenIs)
{
  vu::log::Capture log;
  const auto token256 = Tarvik::makeToken();
  get("/Bench/?eval=Bench.fail('broken')");
  get("/Bench/?eval=Bench.later('k')");
  bench->finishLater("k", 1);
  rpc(call("Bench.echo", R"([{"a":1}])"), "operator-token");
  rpc(call("Bench.echo", "[\"" + token256 + "\"]"));
  rpc(call("Bench.add", "[1,1]"), "observer-token");
  rpc(call("Bench.getNothing"));
  get("/?token=admin-token", {}, "");
  get("/?token=wrong-token", {}, "");
  get("/Bench/", {}, "wrong-token");
  std::vector<std::string> calls;
  for (const auto& line : log.lines())
  {
    EXPECT_EQ(line.message.find("-token"), std::string::npos) << line.message;
    EXPECT_EQ(line.message.find(token256), std::string::npos) << line.message;
    if (line.function != "call" || line.level != vu::log::Level::Info)
      continue;
    const auto from = line.message.find(" from 127.0.0.1:");
    ASSERT_NE(from, std::string::npos) << line.message;
    calls.push_back(line.caller + " " + line.message.substr(0, from) + line.message.substr(line.message.find(": ", from)));
  }
  EXPECT_EQ(calls, (std::vector<std::string>{"local Bench.fail(\"broken\"): broken", "local Bench.later(\"k\"): ok",
                                             "tablet Bench.echo({...}): ok", "local Bench.echo(\"" + token256.substr(0, 16) + "...\"): ok",
                                             "screen Bench.add(1, 1): the role observer may not call Bench.add"}));
}

TEST_F(Http, WhatIsTooLargeOrUnreadableIsRefusedByName)
{
  EXPECT_EQ(post(std::string(100001, ' ')).status, 413u);
  EXPECT_EQ(raw(request("POST /rpc", {{"Transfer-Encoding", "chunked"}}) + "186a1\r\n" + std::string(100001, ' ')).status, 413u);
  EXPECT_EQ(get("/Bench/", {{"X-Long", std::string(20000, 'x')}}).status, 431u);
  EXPECT_EQ(raw("NONSENSE\r\n\r\n").status, 400u);
}

TEST_F(Http, BodyWhoseEndCannotBeToldIsRefusedAndNotTakenForARequest)
{
  const auto hidden = request("GET /Bench/?eval=Bench.later('hidden')");
  const auto refuse = [&](const Fields& fields, const std::string& body = {})
  {
    auto socket = connect();
    beast::flat_buffer buffer;
    asio::write(socket, asio::buffer(request("POST /rpc", fields) + body + hidden));
    EXPECT_EQ(receive(socket, std::move(buffer)).status, 400U) << fields.back().second;
    EXPECT_THROW(receive(socket, std::move(buffer)), boost::system::system_error) << "it is closed";
  };
  const std::string name = "Transfer-Encoding";
  for (const auto* const value : {"gzip", "gzip, chunked", "chunked, gzip", "identity", "", "xchunked", "chunked, chunked"})
    refuse({{name, value}});
  refuse({{name, "chunked"}, {name, "chunked"}}, "0\r\n\r\n");
  refuse({{"Content-Length", "5"}, {name, "chunked"}}, "0\r\n\r\n");
  refuse({{name, "chunked"}, {"Content-Length", "5"}}, "0\r\n\r\n");
  const std::string extension = ";" + std::string(9000, 'x');
  refuse({{name, "chunked"}}, "1" + extension + "\r\n \r\n1" + extension + "\r\n \r\n0\r\n\r\n");
  refuse({{name, "chunked"}}, "1;" + std::string(1 << 20, 'x'));
  refuse({{name, "chunked"}}, "0\r\nX: " + std::string(100000, 'x') + "\r\n\r\n");
  EXPECT_TRUE(bench->seen.lines().empty());

  const auto whole = call("Bench.add", "[1,2]");
  const auto answer = raw(request("POST /rpc", {{name, "Chunked"}}) + "1;a=b\r\n" + whole.substr(0, 1) + "\r\n3D\r\n" + whole.substr(1) +
                          std::string(62 - whole.size(), ' ') + "\r\n0;last\r\nX-After: all\r\n\r\n");
  EXPECT_EQ(vu::Value::parse(answer.body)["result"], 3);
}

TEST_F(Http, StoppedGatewayAnswersWhatIsOpenAndTakesNothingMore)
{
  auto open = connect();
  asio::write(open, asio::buffer(request("POST /rpc", {}, call("Bench.later", R"(["k"])"))));
  auto idle = connect();
  asio::write(idle, asio::buffer(request("GET /healthz")));
  receive(idle);
  auto answered = std::async(std::launch::async, [&] { return receive(open).status; });
  ASSERT_TRUE(bench->waitForLater("k"));
  gateway->stop();
  EXPECT_EQ(answered.get(), 503u);
  EXPECT_THROW(connect(), boost::system::system_error);
  bench->finishLater("k", 1); // comes after the gateway's end, and harms nobody
}

TEST_F(Http, RefusesAddressesThatOthersCouldListenInOrThatAreTaken)
{
  using Tarvik::Gateway;
  Gateway::Options wanted;
  wanted.port = static_cast<std::uint16_t>(std::stoi(port));
  EXPECT_THROW(Gateway(wanted).listen(), std::runtime_error) << "the port is taken";
  wanted.port = 0;
  wanted.address = "nonsense";
  EXPECT_THROW(Gateway(wanted).listen(), std::runtime_error);
  wanted.address = "0.0.0.0";
  EXPECT_THROW(Gateway(wanted).listen(), std::runtime_error);
  wanted.insecure = true;
  EXPECT_NE(Gateway(wanted).listen(), "");
}

} // namespace
