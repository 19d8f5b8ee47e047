#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include <vu/log.hpp>

#include "fixture.hpp"

using namespace GatewayTest;
using Tarvik::MetricsText;

namespace
{

/// Figures by their name and labels. What a reader of the format would refuse
/// is a failure of the test.
std::map<std::string, double> parse(const std::string& text)
{
  const std::regex sample(
      R"re(([a-z_]+?)(_bucket|_sum|_count)?(\{[a-z]+="([^"\\]|\\[\\"n])*"(,[a-z]+="([^"\\]|\\[\\"n])*")*\})? (-?[0-9][-+.0-9e]*))re");
  const std::regex head("# (HELP|TYPE) ([a-z_]+) .+");
  std::map<std::string, double> figures;
  std::string family;
  std::istringstream lines(text);
  std::smatch parts;
  for (std::string line; std::getline(lines, line);)
    if (std::regex_match(line, parts, head))
      family = parts[2];
    else if (std::regex_match(line, parts, sample) && family == parts[1])
      EXPECT_TRUE(figures.emplace(line.substr(0, line.rfind(' ')), std::stod(parts[7])).second) << "twice: " << line;
    else
      ADD_FAILURE() << "no sample of " << family << ": " << line;
  EXPECT_TRUE(text.ends_with('\n'));
  return figures;
}

} // namespace

using MetricsPage = GatewayFixture;

TEST_F(MetricsPage, TellsWhatWasDoneToWhoeverHasAToken)
{
  options.limits.openCalls = 1;
  options.collectors = {[](ZB::ZBBroker&, MetricsText& text)
                        {
                          text.family("half", "gauge", "Never told.");
                          throw std::runtime_error("the figures are out");
                        },
                        [](ZB::ZBBroker& broker, MetricsText& text)
                        {
                          text.family("modules", "gauge", "Modules\\,\nof the \"host\".");
                          text.sample({{"of", "\"\\\n"}}, static_cast<double>(broker.modules().size()));
                        }};
  begin();
  auto socket = open(); // holds a call, and is refused another one
  socket.send(call("Bench.later", R"(["k"])"));
  ASSERT_TRUE(bench->waitForLater("k"));
  socket.send(call("Bench.nothing"));
  socket.receive();
  for (const auto& [method, params] : std::vector<std::pair<std::string, std::string>>{{"Bench.add", "[1, 2]"},
                                                                                       {"Bench.nothing", "[]"},
                                                                                       {"Bench.nothing", "[]"},
                                                                                       {"Bench.fail", R"(["no"])"},
                                                                                       {"Bench.failedFuture", "[]"},
                                                                                       {"Nobody.add", "[]"},
                                                                                       {"Bench.subtract", "[]"},
                                                                                       {"Bench.add", "[1]"},
                                                                                       {"session.services", "[]"}})
    rpc(call(method, params));
  rpc(call("Bench.emit", "[1]"), "observer-token");
  get("/Nobody/");
  for (const auto* const expression : {"Bench.nothing()", "Bench.fail('no')", "Nobody.add()", "Bench.add(1)"})
    get(std::string("/Bench/?eval=") + expression);
  get("/Bench/?eval=Bench.emit(1)", {}, "observer-token");
  auto page = connect(); // likewise
  for (const auto* const expression : {"Bench.later('page')", "Bench.nothing()"})
  {
    asio::write(page, asio::buffer(request(std::string("GET /Bench/?eval=") + expression)));
    receive(page);
  }

  EXPECT_EQ(get("/metrics", {}, "").status, 401u);
  const vu::log::Capture log;
  const auto answer = get("/metrics", {}, "observer-token");
  EXPECT_EQ(answer.status, 200u);
  EXPECT_EQ(answer.header[http::field::content_type], "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_EQ(log.count(vu::log::Level::Warning, "the figures are out"), 1u);
  auto figures = parse(answer.body);
  EXPECT_EQ(figures.count("half"), 0u);
  const std::map<std::string, double> expected{{R"(modules{of="\"\\\n"})", 3},
                                               {"tarvik_gateway_connections{kind=\"websocket\"}", 1},
                                               {"tarvik_gateway_connections_total{kind=\"websocket\"}", 1},
                                               {"tarvik_gateway_connections_refused_total", 0},
                                               {"tarvik_gateway_answers_total{status=\"200\"}", 12},
                                               {"tarvik_gateway_answers_total{status=\"401\"}", 1},
                                               {"tarvik_gateway_answers_total{status=\"404\"}", 2},
                                               {"tarvik_gateway_calls_open", 2},
                                               {"tarvik_gateway_queue_drops_total", 0}};
  for (const auto& [name, value] : expected)
  {
    ASSERT_EQ(figures.count(name), 1u) << name;
    EXPECT_EQ(figures[name], value) << name;
  }
  const std::map<std::string, double> calls{{"ok", 4}, {"error", 3}, {"unknown", 3}, {"invalid", 2}, {"refused", 2}, {"overloaded", 2}};
  for (const auto& [result, count] : calls)
  {
    const auto figure = [&, &result = result](const std::string& suffix, const std::string& more = {})
    { return figures.at("tarvik_gateway_call_duration_seconds" + suffix + "{result=\"" + result + "\"" + more + "}"); };
    EXPECT_EQ(figure("_count"), count) << result;
    EXPECT_EQ(figure("_bucket", ",le=\"+Inf\""), count) << result;
    EXPECT_EQ(figure("_bucket", ",le=\"600\""), count) << result;
    EXPECT_LE(figure("_bucket", ",le=\"0.001\""), figure("_bucket", ",le=\"0.025\"")) << result;
  }
  for (const auto* const key : {"k", "page"})
    bench->finishLater(key, 1);
  EXPECT_EQ(socket.receive()["result"], 1);
  EXPECT_TRUE(socket.ask(call("Bench.nothing")).contains("result")) << "its place is free again";
  EXPECT_TRUE(eventually([this] { return parse(get("/metrics").body).at("tarvik_gateway_calls_open") == 0; }));
}
