#include "fixture.hpp"

#include <csignal>
#include <filesystem>

#include <sys/stat.h>

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
  std::filesystem::remove_all(root / "run"); // which gives nobody the root
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

TEST_F(DaemonProcess, WhatTheHostMakesIsForItsUserAloneAndProgramsGetWhatItWasStartedWith)
{
  const auto former = ::umask(0);
  {
    Process daemon(arguments());
    ::umask(former);
    daemon.firstLine();
    connect()->call("Tokens.add", {"alice", "observer"}).value();
    connect()->call("ZBPreferences.writePrefFile", {"p", vu::Value::object(), false}).value();
    play("<run command=\"touch made\"/>", "runEnded");
    daemon.signal(SIGTERM);
    daemon.waitForEnd();
  }
  std::vector<std::string> open;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    if ((static_cast<unsigned>(entry.status().permissions()) & 077) != 0)
      open.push_back(entry.path().filename());
  EXPECT_THAT(open, testing::UnorderedElementsAre("behavior.xar", "made")) << "the test's own, and the program's";
  EXPECT_EQ(mode("made"), 0666U);
}
