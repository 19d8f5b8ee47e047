#include "fixture.hpp"

#include <csignal>
#include <future>
#include <random>
#include <thread>

#include <gmock/gmock.h>

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
  std::ptrdiff_t filesIn(const std::string& folder) const
  {
    return std::distance(std::filesystem::directory_iterator(root / folder), std::filesystem::directory_iterator());
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
      {{"--root", root.string() + "/other", "--listen", "127.0.0.1:0", "--module-directory", "/nonexistent"}, "/nonexistent/libmemory.so"},
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

/// Ends the host in the middle of installations and writes of preferences.
TEST_F(DaemonProcess, KillAtAnyMomentLeavesPackagesAndPreferencesOldOrNewAndWhole)
{
  const std::string settings[] = {std::string(200000, 'a'), std::string(100000, 'b')};
  for (const std::string version : {"0", "1"})
  {
    std::filesystem::create_directories(root / version / "a");
    std::ofstream(root / version / "manifest.xml") << "<package uuid='p' version='" + version + "'><behavior path='a'/></package>";
    std::ofstream(root / version / "a/behavior.xar") << "<project format='1'/>";
    std::ofstream(root / version / "a/version") << version;
  }
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::minstd_rand random(seed);
  for (int round = 0; round < 10; ++round)
  {
    Daemon daemon(arguments());
    ASSERT_NE(daemon.line(), "") << daemon.errors();
    vu::RemoteSession session(remote());
    const auto packages = session.service("PackageManager").value();
    const auto preferences = session.service("ZBPreferences").value();
    if (round > 0)
    {
      EXPECT_EQ(packages.call<vu::Value>("package", std::string("p"))["version"], vu::Value(read("packages/p/a/version")));
      EXPECT_THAT(preferences.call<std::string>("readPrefFile", std::string("Kill"), false), testing::AnyOfArray(settings));
      EXPECT_EQ(filesIn("packages"), 1) << "left-overs";
      EXPECT_EQ(filesIn("preferences"), 1) << "left-overs";
    }
    std::promise<void> begun;
    std::jthread changes(
        [&]
        {
          try
          {
            for (int change = 0;; ++change)
            {
              packages.call<std::string>("install", (root / std::to_string(change % 2)).string(), std::string("test"));
              preferences.call<void>("writePrefFile", std::string("Kill"), settings[change % 2], false);
              if (change == 0)
                begun.set_value();
            }
          }
          catch (const vu::ServiceError&)
          {
          }
        });
    EXPECT_EQ(begun.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    daemon.signal(SIGKILL);
  }
}
