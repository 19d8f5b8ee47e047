#include "fixture.hpp"

#include <csignal>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace HostTest;

class DaemonProcess : public RootFixture
{
protected:
  /// Of a daemon that a shell prepares and becomes.
  std::vector<std::string> prepared(const std::string& preparation, const std::string& logLevel = "error") const
  {
    auto all = arguments();
    all.back() = logLevel;
    all.insert(all.begin(), {"/bin/sh", "-c", preparation + "; exec \"$0\" \"$@\""});
    return all;
  }
  bool comesUp() const
  {
    return eventually([this] { return exists("run/endpoint"); });
  }
  void worksAndEndsOnASignal(Process& daemon) const
  {
    EXPECT_TRUE(play("<log message=\"fine\"/><wait seconds=\"1000\"/>", "runBegan").is_object());
    connect()->service("ZBBehaviorManager").value().call<void>("stopAllBehaviors");
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitForEnd(), 0);
  }
};

TEST_F(DaemonProcess, SaysWhenItIsReadyAndEndsInOrderOnASignal)
{
  for (const int number : {SIGTERM, SIGINT, SIGHUP})
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

TEST_F(DaemonProcess, ALogThatNobodyReadsAnyMoreHoldsUpNothing)
{
  const auto pipe = root / "log";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const bool goesAway : {false, true})
  {
    const int reader = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ::fcntl(reader, F_SETPIPE_SZ, 4096);
    Process daemon(prepared("exec 2>" + pipe.string(), "debug"));
    EXPECT_NE(daemon.firstLine(), "");
    for (int i = 0; i < 100; ++i) // each is a line
      connect()->services();
    if (goesAway)
      ::close(reader);
    worksAndEndsOnASignal(daemon);
    if (!goesAway)
      ::close(reader);
  }
}

TEST_F(DaemonProcess, OutlivesATerminalWhereItIsMeantToAndHasNoFileInThePlaceOfAClosedStream)
{
  Process daemon(prepared("trap '' HUP; exec >&- 2>&-"));
  ASSERT_TRUE(comesUp());
  daemon.signal(SIGHUP);
  const auto files = "/proc/" + std::to_string(daemon.id()) + "/fd/";
  for (const auto* stream : {"1", "2"})
    EXPECT_EQ(std::filesystem::read_symlink(files + stream), "/dev/null");
  worksAndEndsOnASignal(daemon);
}

TEST_F(DaemonProcess, RaisesItsLimitOfFilesAndGivesProgramsTheirsBack)
{
  Process daemon(prepared("ulimit -S -n 300"));
  ASSERT_NE(daemon.firstLine(), "");
  const auto limits = readFile("/proc/" + std::to_string(daemon.id()) + "/limits");
  EXPECT_THAT(limits, testing::Not(testing::ContainsRegex("Max open files +300 ")));
  EXPECT_EQ(play("<run command=\"sh -c 'ulimit -n > limit'\"/>", "runEnded")["outcome"], "finished");
  EXPECT_EQ(line("limit"), "300");
  worksAndEndsOnASignal(daemon);
}

TEST_F(DaemonProcess, AFullDiskKeepsNeitherFromStartingNorFromPlaying)
{
  if (::mount("tmpfs", root.string().c_str(), "tmpfs", 0, "size=1m,mode=700") != 0)
    GTEST_SKIP() << "only root can mount a disk to fill";
  const std::shared_ptr<void> mounted(nullptr, [this](void*) { ::umount2(root.string().c_str(), MNT_DETACH); });
  {
    Process before(arguments());
    EXPECT_NE(before.firstLine(), "");
    writeFile(root / "behavior.xar", TestSupport::project("")); // whose place play() takes
    before.signal(SIGKILL);
    before.waitForEnd();
  }
  for (const bool orderly : {false, true}) // what ended before
  {
    std::ofstream filling(root / "filling", std::ios::app);
    while (filling.put('x').flush())
      ;
    Process daemon(arguments());
    const auto ready = daemon.firstLine();
    EXPECT_EQ(ready, "tarvikd ready: " + line("run/endpoint") + "/") << orderly << daemon.error();
    EXPECT_EQ(mode("run/token"), 0600u);
    EXPECT_EQ(play("", "runEnded")["outcome"], "finished");
    EXPECT_EQ(connect()->service("RunHistory").value().call<std::vector<vu::Value>>("getRuns", 1).size(), 1u);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitForEnd(), 0) << daemon.error();
    EXPECT_FALSE(exists("run/token"));
  }
}
