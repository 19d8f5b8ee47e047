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
  const std::regex sample(R"re(([a-z_]+)(\{[a-z]+="([^"\\]|\\[\\"n])*"(,[a-z]+="([^"\\]|\\[\\"n])*")*\})? (-?[0-9][-+.0-9e]*))re");
  std::map<std::string, double> figures;
  std::string family;
  std::istringstream lines(text);
  for (std::string line, type; std::getline(lines, line);)
  {
    std::smatch parts;
    if (line.starts_with("# HELP "))
    {
      family = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(std::getline(lines, type) && type.starts_with("# TYPE " + family + " ")) << type;
    }
    else if (!std::regex_match(line, parts, sample))
      ADD_FAILURE() << "no sample: " << line;
    else
    {
      const auto name = parts[1].str();
      const auto suffix = name.starts_with(family) ? name.substr(family.size()) : "of no family";
      EXPECT_TRUE(type.ends_with(" histogram") ? suffix == "_bucket" || suffix == "_sum" || suffix == "_count" : suffix.empty()) << line;
      EXPECT_TRUE(figures.emplace(name + parts[2].str(), std::stod(parts[6])).second) << "twice: " << line;
    }
  }
  EXPECT_TRUE(text.ends_with('\n'));
  return figures;
}

} // namespace

class MetricsPage : public GatewayFixture
{
};

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
  const auto call = [](const std::string& method, const std::string& params)
  { return R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":)" + params + "}"; };
  auto socket = open(); // holds a call, and is refused another one
  socket.send(call("Bench.later", R"(["k"])"));
  ASSERT_TRUE(bench->waitForLater("k"));
  socket.send(call("Bench.nothing", "[]"));
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
                                               {"tarvik_gateway_answers_total{status=\"200\"}", 10},
                                               {"tarvik_gateway_answers_total{status=\"401\"}", 1},
                                               {"tarvik_gateway_answers_total{status=\"404\"}", 1},
                                               {"tarvik_gateway_calls_open", 1},
                                               {"tarvik_gateway_queue_drops_total", 0}};
  for (const auto& [name, value] : expected)
  {
    ASSERT_EQ(figures.count(name), 1u) << name;
    EXPECT_EQ(figures[name], value) << name;
  }
  const std::map<std::string, double> calls{{"ok", 3}, {"error", 2}, {"unknown", 2}, {"invalid", 1}, {"refused", 1}, {"overloaded", 1}};
  for (const auto& [result, count] : calls)
  {
    const auto figure = [&, &result = result](const std::string& suffix, const std::string& more = {})
    { return figures.at("tarvik_gateway_call_duration_seconds" + suffix + "{result=\"" + result + "\"" + more + "}"); };
    EXPECT_EQ(figure("_count"), count) << result;
    EXPECT_EQ(figure("_bucket", ",le=\"+Inf\""), count) << result;
    EXPECT_EQ(figure("_bucket", ",le=\"600\""), count) << result;
    EXPECT_LE(figure("_bucket", ",le=\"0.001\""), figure("_bucket", ",le=\"0.025\"")) << result;
  }
  bench->finishLater("k", 1);
}
