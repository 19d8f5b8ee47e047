#include "fixture.hpp"

#include <csignal>
#include <random>
#include <thread>

#include <gmock/gmock.h>

using DaemonProcess = HostTest::RootFixture;
using namespace HostTest;

TEST_F(DaemonProcess, SaysWhenItIsReadyAndEndsInOrderOnASignal)
{
  for (const int number : {SIGTERM, SIGINT})
  {
    SCOPED_TRACE(number);
    Process daemon(arguments());
    const auto ready = daemon.firstLine();
    EXPECT_EQ(ready, "tarvikd ready: " + line("run/endpoint") + "/");
    EXPECT_FALSE(connect()->services().empty());
    daemon.signal(number);
    EXPECT_EQ(daemon.waitForEnd(), 0) << daemon.error();
    EXPECT_EQ(daemon.output(), ready + "\n") << "one line and no more";
    EXPECT_FALSE(exists("run/endpoint"));
    EXPECT_FALSE(exists("run/token"));
  }
}

TEST_F(DaemonProcess, RootOfAKilledHostIsTakenOverAndTheHistoryTellsHowEachHostEnded)
{
  for (const auto& [number, reason] : {std::pair(SIGKILL, "the host ended without a word"), {SIGTERM, "host shut down"}})
  {
    {
      Process ended(arguments());
      ended.firstLine();
      EXPECT_TRUE(play("<wait seconds=\"1000\"/>", "runBegan").is_object());
      ended.signal(number);
      ended.waitForEnd();
    }
    EXPECT_EQ(exists("run/endpoint"), number == SIGKILL);
    Process daemon(arguments());
    const auto ready = daemon.firstLine();
    EXPECT_EQ(ready, "tarvikd ready: " + line("run/endpoint") + "/");
    EXPECT_EQ(connect()->service("RunHistory").value().call<std::vector<vu::Value>>("getRuns", 1).at(0)["reason"], reason);
    daemon.signal(SIGTERM);
    daemon.waitForEnd();
  }
}

TEST_F(DaemonProcess, FailedStartSaysWhyOnStderrAndNothingOnStdout)
{
  Process first(arguments());
  first.firstLine();
  const std::pair<std::vector<std::string>, std::string> cases[] = {{arguments(), "another host runs on the root"},
                                                                    {{TARVIKD, "--root", "/proc/nowhere"}, "/proc/nowhere"},
                                                                    {{TARVIKD, "--nonsense"}, "--nonsense"}};
  for (const auto& [command, named] : cases)
  {
    Process daemon(command);
    EXPECT_EQ(daemon.waitForEnd(), 1);
    EXPECT_THAT(daemon.error(), testing::HasSubstr(named));
    EXPECT_EQ(daemon.output(), "");
  }
}

/// Ends the host in the middle of installations and writes of preferences.
TEST_F(DaemonProcess, KillAtAnyMomentLeavesPackagesAndPreferencesOldOrNewAndWhole)
{
  const std::string settings[] = {std::string(200000, 'a'), std::string(100000, 'b')};
  for (const std::string version : {"0", "1"})
    writeFile(TestSupport::writePackage(root / version, "p", {{"a", ""}}, version) / "a/version", version);
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::minstd_rand random(seed);
  for (int round = 0; round < 10; ++round)
  {
    Process daemon(arguments());
    ASSERT_NE(daemon.firstLine(), "") << daemon.error();
    const auto session = connect();
    const auto packages = session->service("PackageManager").value();
    const auto preferences = session->service("ZBPreferences").value();
    if (round > 0)
    {
      EXPECT_EQ(packages.call<vu::Value>("package", std::string("p"))["version"], vu::Value(line("packages/p/a/version")));
      EXPECT_THAT(preferences.call<std::string>("readPrefFile", std::string("Kill"), false), testing::AnyOfArray(settings));
      EXPECT_EQ(TestSupport::namesIn(root / "packages").size(), 1U) << "left-overs";
      EXPECT_EQ(TestSupport::namesIn(root / "preferences").size(), 1U) << "left-overs";
    }
    TestSupport::Event begun;
    std::jthread changes(
        [&]
        {
          try
          {
            for (int change = 0;; ++change)
            {
              packages.call<std::string>("install", (root / std::to_string(change % 2)).string(), std::string("test"));
              preferences.call<void>("writePrefFile", std::string("Kill"), settings[change % 2], false);
              begun.set();
            }
          }
          catch (const vu::ServiceError&)
          {
          }
        });
    EXPECT_TRUE(begun.wait());
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    daemon.signal(SIGKILL);
  }
}
