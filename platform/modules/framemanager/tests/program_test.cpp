#include "framemanagerfixture.hpp"

#include <csignal>

#include <outputreader.hpp>

using testing::ElementsAre;

namespace ZB::FrameManager
{

class ProgramTest : public FrameManagerTest
{
protected:
  /// Lines that programs have written since the capture began.
  static std::vector<std::string> output(const vu::log::Capture& capture, vu::log::Level level = vu::log::Level::Info)
  {
    std::vector<std::string> lines;
    for (const auto& line : capture.lines())
      if (line.function == "run" && line.level == level)
        lines.push_back(line.message);
    return lines;
  }
};

TEST_F(ProgramTest, RunsInTheProjectsDirectoryWithCleanSurroundings)
{
  write("deep/inside/report.py", R"(import os, signal, sys
print("directory", os.getcwd())
print("arguments", sys.argv[1:])
print("url", os.environ["TARVIK_URL"], "PATH" in os.environ)
print("input", repr(sys.stdin.read()))
print("open", sorted(fd for fd in map(int, os.listdir("/proc/self/fd")) if fd > 2)[1:])
print("leads", os.getpid() == os.getpgid(0))
print("blocked", signal.pthread_sigmask(signal.SIG_BLOCK, []))
print("hangup", signal.getsignal(signal.SIGHUP) == signal.SIG_DFL)
print("careful", file=sys.stderr)
sys.stdout.write("no newline at the end")
)");
  const int inherited = ::dup(0); // without close-on-exec
  ::signal(SIGHUP, SIG_IGN);
  const vu::log::Capture capture;
  const auto id = play("<run command=\"python3 report.py 'a b' $HOME\" timeout=\"60\"/>", "deep/inside/behavior.xar");
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  ::signal(SIGHUP, SIG_DFL);
  ::close(inherited);
  const std::string name = "demo/t: ";
  EXPECT_THAT(output(capture), ElementsAre(name + "directory " + (std::filesystem::canonical(directory.path()) / "deep/inside").string(),
                                           name + "arguments ['a b', '$HOME']", name + "url http://" + directory.string() + " True",
                                           name + "input ''", name + "open []", name + "leads True", name + "blocked set()",
                                           name + "hangup True", name + "no newline at the end"));
  EXPECT_THAT(output(capture, vu::log::Level::Warning), ElementsAre(name + "careful"));
}

TEST_F(ProgramTest, GetsTheVariablesThatAreNamedAndNothingOfAnotherHost)
{
  for (const auto* name : {"TARVIK_ROOT", "TARVIK_TOKEN_FILE", "TARVIK_URL", "SECRET", "ROS_DOMAIN_ID", "ROS", "DISPLAY", "LC_TIME", "TZ"})
    ::setenv(name, "mine", 1);
  const auto seen = [this](const vu::Value& names)
  {
    start({{"framemanager", {{"environment", names}}}});
    const vu::log::Capture capture;
    EXPECT_EQ(run("<run command=\"sh -c 'env | grep -E &quot;=mine$|^TARVIK_&quot; | sort | tr &quot;\\\\n&quot; &quot; &quot;'\"/>"), "");
    return output(capture).empty() ? std::string() : output(capture).front();
  };
  const std::string url = "TARVIK_URL=http://" + directory.string() + " ";
  EXPECT_EQ(seen(vu::Value::array()), "demo/t: LC_TIME=mine " + url + "TZ=mine ");
  EXPECT_EQ(seen({"ROS_*", "DISPLAY"}), "demo/t: DISPLAY=mine LC_TIME=mine ROS_DOMAIN_ID=mine " + url + "TZ=mine ");
  EXPECT_EQ(seen({"*"}), "demo/t: DISPLAY=mine LC_TIME=mine ROS=mine ROS_DOMAIN_ID=mine SECRET=mine " + url + "TZ=mine ");
  for (const auto* name : {"TARVIK_ROOT", "TARVIK_TOKEN_FILE", "TARVIK_URL", "SECRET", "ROS_DOMAIN_ID", "ROS", "DISPLAY", "LC_TIME", "TZ"})
    ::unsetenv(name);
  for (const auto* bad : {"\"PATH\"", "[1]", "[\"\"]", "[\"A=B\"]", "[\"A*B\"]", "[\"TARVIK_ROOT\"]", "[\"TARVIK_*\"]"})
    EXPECT_THAT(errorOf(
                    [&] {
                      start({{"framemanager", {{"environment", vu::Value::parse(bad)}}}});
                    }),
                testing::HasSubstr("framemanager.environment"))
        << bad;
}

TEST_F(ProgramTest, TheWayItEndsDecidesTheOutcome)
{
  write("plain.sh", "exit 0");
  std::filesystem::create_directory(directory / "folder");
  std::filesystem::permissions(directory / write("bare.sh", "exit 0"), std::filesystem::perms::owner_all);
  std::filesystem::permissions(directory / write("whole.sh", "#!/bin/sh\nexit 0"), std::filesystem::perms::owner_all);
  const std::pair<const char*, const char*> cases[] = {{"sh plain.sh", ""},
                                                       {"./whole.sh", ""},
                                                       {"sh -c 'exit 3'", "sh ended with exit status 3; its output stands in the log"},
                                                       {"sh -c 'kill -9 $$'", "sh was ended by signal 9 (Killed)"},
                                                       {"./plain.sh", "cannot start ./plain.sh: Permission denied"},
                                                       {"./bare.sh", "cannot start ./bare.sh: Exec format error"},
                                                       {"./folder", "cannot start ./folder: Permission denied"},
                                                       {"./none.sh", "cannot start ./none.sh: No such file or directory"}};
  for (const auto& [command, message] : cases)
    EXPECT_EQ(run(std::string("<run command=\"") + command + "\"/>"), message) << command;

  const auto id = create("<run command=\"true\"/>", "gone/behavior.xar");
  std::filesystem::remove_all(directory / "gone");
  manager->playBehavior(id);
  EXPECT_THAT(outcome(manager->waitForStopped(id)), testing::HasSubstr("(the directory " + (directory / "gone").string() + " has gone)"));
}

TEST_F(ProgramTest, MuchOutputComesWholeAndLongLinesInParts)
{
  const vu::log::Capture capture;
  EXPECT_EQ(run("<run command=\"python3 -c 'print(&quot;x&quot; * 20000); [print(i) for i in range(900)]'\"/>"), "");
  const auto lines = output(capture);
  ASSERT_EQ(lines.size(), 903u);
  EXPECT_EQ(lines.at(2).size(), std::string("demo/t: ").size() + 20000 - 2 * OutputReader::lineLimit);
  EXPECT_EQ(lines.back(), "demo/t: 899");
}

TEST_F(ProgramTest, WhatABehaviorPrintsBeyondItsShareIsLeftOutAndCounted)
{
  // More than its share of bytes, and of lines from two sources at once.
  const std::pair<std::string, int> cases[] = {
      {"<run command=\"python3 -c 'import os; os.write(1, (b&quot;x&quot; * 1023 + b&quot;\\n&quot;) * 1000)'\"/>", 1000},
      {"<parallel><repeat count=\"2000\"><log message=\"tick\"/></repeat><run command=\"seq 3000\"/></parallel>", 5000}};
  for (const auto& [steps, printed] : cases)
  {
    const vu::log::Capture capture;
    const auto before = manager->linesLeftOut();
    EXPECT_EQ(run(steps), "");
    EXPECT_TRUE(eventually([&] { return capture.count(vu::log::Level::Warning, "lines left out") != 0; }));
    const auto leftOut = manager->linesLeftOut() - before;
    const auto logged = capture.count(vu::log::Level::Info, "demo/t: ");
    EXPECT_GT(leftOut, 0);
    EXPECT_EQ(logged + static_cast<std::size_t>(leftOut), static_cast<std::size_t>(printed));
    EXPECT_LE(capture.count(vu::log::Level::Warning, "lines left out"), static_cast<std::size_t>(leftOut) / 2) << "one line for many";
  }
}

TEST_F(ProgramTest, DeletionGivesItsGraceToCleanUp)
{
  start({{"framemanager", {{"terminateGraceMs", 30000}}}});
  write("script.sh", "trap 'echo resting > rested; exit 1' TERM\ntouch begun\nwhile :; do sleep 0.01; done");
  const auto id = play("<run command=\"sh script.sh\"/>");
  ASSERT_TRUE(eventually([this] { return std::filesystem::exists(directory / "begun"); }));
  manager->deleteBehavior(id);
  EXPECT_TRUE(std::filesystem::exists(directory / "rested"));
  EXPECT_EQ(signalsOf(id), "stopped");
}

} // namespace ZB::FrameManager
