#include "fixture.hpp"

#include <csignal>
#include <future>

#include <vu/remotesession.hpp>

#include "daemon.hpp"

using HostTest::Daemon;
using HostTest::RootFixture;

class DaemonProcess : public RootFixture
{
protected:
  std::vector<std::string> arguments(std::initializer_list<std::string> more = {}) const
  {
    std::vector<std::string> all{"--root", root.string(), "--listen", "127.0.0.1:0", "--log-level", "warning"};
    all.insert(all.end(), more);
    return all;
  }

  vu::RemoteSession::Options remote() const { return {read("run/endpoint"), read("run/token"), std::chrono::milliseconds(10000), {}}; }

  /// Starts a behavior without end; true when the history knows of it.
  bool play() const
  {
    std::ofstream(root / "behavior.xar") << R"(<project format="1" name="long"><wait seconds="1000"/></project>)";
    vu::RemoteSession session(remote());
    std::promise<void> known;
    session.service("RunHistory").value().connect<vu::Value>("runBegan", [&known](const vu::Value&) { known.set_value(); }).value();
    const auto frames = session.service("ZBFrameManager").value();
    frames.call<void>("playBehavior",
                      frames.call<std::string>("createBehavior", root.string(), std::string("behavior.xar"), std::string("long")));
    return known.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  }
  std::string reasonOfLastRun() const
  {
    return vu::RemoteSession(remote()).service("RunHistory").value().call<std::vector<vu::Value>>("getRuns", 1).at(0)["reason"];
  }
};

TEST_F(DaemonProcess, SaysWhenItIsReadyAndEndsInOrderOnASignal)
{
  for (const int number : {SIGTERM, SIGINT})
  {
    SCOPED_TRACE(number);
    Daemon daemon(arguments());
    const auto line = daemon.line();
    EXPECT_EQ(line, "tarvikd ready: " + read("run/endpoint") + "/");
    {
      vu::RemoteSession session(remote());
      EXPECT_FALSE(session.services().empty());
    }
    daemon.signal(number);
    EXPECT_EQ(daemon.wait(), 0) << daemon.errorText;
    EXPECT_EQ(daemon.rest(), "") << "one line and no more";
    EXPECT_FALSE(exists("run/endpoint"));
    EXPECT_FALSE(exists("run/token"));
  }
}

TEST_F(DaemonProcess, RootOfAKilledHostIsTakenOverAndTheHistoryTellsHowEachHostEnded)
{
  for (const auto& [number, reason] : {std::pair(SIGKILL, "the host ended without a word"), {SIGTERM, "host shut down"}})
  {
    {
      Daemon ended(arguments());
      ended.line();
      EXPECT_TRUE(play());
      ended.signal(number);
      ended.wait();
    }
    EXPECT_EQ(exists("run/endpoint"), number == SIGKILL);
    Daemon daemon(arguments());
    const auto line = daemon.line();
    EXPECT_EQ(line, "tarvikd ready: " + read("run/endpoint") + "/");
    EXPECT_EQ(reasonOfLastRun(), reason);
    daemon.signal(SIGTERM);
    daemon.wait();
  }
}

TEST_F(DaemonProcess, FailedStartSaysWhyOnStderrAndNothingOnStdout)
{
  Daemon first(arguments());
  first.line();
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {arguments(), "another host runs on the root"},
      {{"--root", root.string() + "/other", "--listen", "127.0.0.1:0", "--module", "/nonexistent/libguest.so"}, "/nonexistent/libguest.so"},
      {{"--root", "/proc/nowhere"}, "/proc/nowhere"},
      {{"--nonsense"}, "--nonsense"},
  };
  for (const auto& [options, named] : cases)
  {
    SCOPED_TRACE(named);
    Daemon daemon(options);
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_NE(daemon.errorText.find(named), std::string::npos) << daemon.errorText;
    EXPECT_EQ(daemon.rest(), "");
  }
}
