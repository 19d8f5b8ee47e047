#include <gtest/gtest.h>

#include <vu/log.hpp>

#include "fixture.hpp"
#include "refusallog.hpp"

using Tarvik::RefusalLog;
using vu::log::Level;

TEST(RefusalLogTest, TellsOfEachAddressSomeLinesASecondAndThenHowManyWereLeftOut)
{
  RefusalLog refusals;
  const auto begin = RefusalLog::Clock::now();
  const auto admitted = [&](const std::string& address, std::size_t times, std::chrono::milliseconds after)
  {
    std::size_t lines = 0;
    for (std::size_t i = 0; i < times; ++i)
      lines += refusals.admits(address, begin + after) ? 1 : 0;
    return lines;
  };
  using std::chrono::milliseconds;
  vu::log::Capture log;
  EXPECT_EQ(admitted("a", 25, milliseconds(0)), 10u);
  EXPECT_EQ(admitted("b", 3, milliseconds(0)), 3u);
  refusals.tell(begin + milliseconds(1000));
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.count(Level::Info, "a: 15 more were refused, whose lines are left out"), 1u);
  EXPECT_EQ(admitted("a", 25, milliseconds(1001)), 10u);
  for (int i = 0; i < 2000; ++i)
    refusals.admits(std::to_string(i), begin + milliseconds(1002));
  refusals.tell(begin + milliseconds(1500));
  EXPECT_EQ(log.lines().size(), 1u) << "those seconds are not over";
  refusals.tell(begin + milliseconds(3000));
  EXPECT_EQ(log.count(Level::Info, "all other addresses: "), 1u);
}

using RefusedRequests = GatewayTest::GatewayFixture;

TEST_F(RefusedRequests, AreLoggedAFewTimesAndCutAndOthersAreAnsweredAsEver)
{
  begin();
  vu::log::Capture log;
  std::vector<GatewayTest::asio::ip::tcp::socket> strangers;
  const auto text = request("GET /", {{"Host", "evil" + std::string(10000, 'x')}}, {}, "");
  for (int i = 0; i < 60; ++i)
    GatewayTest::asio::write(strangers.emplace_back(connect()), GatewayTest::asio::buffer(text));
  for (auto& stranger : strangers)
    EXPECT_EQ(receive(stranger).status, 403u);
  EXPECT_TRUE(GatewayTest::eventually([&log] { return log.count(Level::Info, "more were refused, whose lines are left out") != 0; }));
  EXPECT_LT(log.count(Level::Info, "evil"), 60u);
  for (const auto& line : log.lines())
    EXPECT_LT(line.message.size(), 500u);
}
