#include <gtest/gtest.h>

#include <vu/remotesession.hpp>

#include <testing/errors.hpp>
#include <testing/standinhost.hpp>

// What only a host that does not behave, or that counts, can show; the rest is
// tested over the wire with the gateway.
using namespace std::chrono_literals;
using TestSupport::StandInHost;
using Rounds = std::vector<std::vector<std::string>>;

TEST(RemoteSession, CallOfANamedMethodIsOneRoundTripAndNothingIsDescribedUnasked)
{
  const vu::Value described{{"name", "Arm"}, {"description", "An arm"}, {"methods", vu::Value::array()}, {"signals", vu::Value::array()}};
  const StandInHost host([&](const std::string& method, const vu::Value&)
                         { return method == "session.describe" ? described : vu::Value(90); });
  vu::RemoteSession session({host.url(), "token", TestSupport::patience, {}});
  const auto arm = session.service("Arm").value();
  EXPECT_EQ(arm.call<int>("angle"), 90);
  arm.connect<int>("bent", [](int) {}).value();
  EXPECT_EQ(host.rounds(), (Rounds{{"Arm.angle"}, {"session.connect"}}));
  EXPECT_EQ(arm.description().description, "An arm");
  EXPECT_EQ(host.rounds().back(), std::vector<std::string>{"session.describe"});
}

TEST(RemoteSession, HostThatSaysNothingIsPingedAndThenCountsAsLost)
{
  StandInHost host([](const std::string&, const vu::Value&) { return 1; });
  vu::RemoteSession session({host.url(), "token", TestSupport::patience, {}, 2000ms});
  TestSupport::Event closed;
  session.setClosedCallback([&](const std::string& reason) { reason.empty() ? void() : closed.set(); });
  EXPECT_TRUE(host.pinged().wait());
  EXPECT_EQ(session.service("Arm").value().call<int>("bend"), 1) << "a host that answers pings stays";
  host.fallSilent();
  const auto open = session.call("Arm.bend", vu::Value::array());
  EXPECT_TRUE(closed.wait());
  const auto error = TestSupport::serviceErrorOf([&] { open.value(); });
  EXPECT_EQ(error.kind(), vu::ServiceError::Kind::ConnectionLost);
  EXPECT_EQ(error.module() + "." + error.method(), "Arm.bend");
  EXPECT_FALSE(session.isConnected());
}

TEST(RemoteSession, CallsThatCannotBeSentAreRefusedBeforeTheyTakeAllMemory)
{
  TestSupport::Event release;
  const StandInHost host(
      [&](const std::string&, const vu::Value&)
      {
        release.wait(); // and reads nothing more meanwhile
        return 1;
      });
  vu::RemoteSession::Options options{host.url(), "token", TestSupport::patience, {}};
  options.outgoingBytes = 1 << 20;
  vu::RemoteSession session(options);
  const auto large = vu::Value::array({std::string(1 << 20, 'x')});
  std::vector<vu::Future<vu::Value>> calls;
  for (int i = 0; i < 16; ++i) // of which the system keeps some
    calls.push_back(session.call("Arm.bend", large));
  ASSERT_TRUE(calls.back().isFinished());
  EXPECT_EQ(TestSupport::serviceErrorOf([&] { calls.back().value(); }).kind(), vu::ServiceError::Kind::Overloaded);
  release.set();
  EXPECT_EQ(calls.front().value(), 1);
}
