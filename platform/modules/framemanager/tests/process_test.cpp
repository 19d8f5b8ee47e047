#include "framemanagerfixture.hpp"

#include <csignal>
#include <thread>

#include <outputreader.hpp>

using testing::ElementsAre;
using testing::HasSubstr;

namespace ZB::FrameManager
{

class ProcessTest : public FrameManagerTest
{
protected:
  /// Lines that processes have written since the capture began.
  static std::vector<std::string> output(const vu::log::Capture& capture, vu::log::Level level = vu::log::Level::Info)
  {
    std::vector<std::string> lines;
    for (const auto& line : capture.lines())
      if (line.function == "run" && line.level == level)
        lines.push_back(line.message);
    return lines;
  }

  /// A script that does `setup`, makes the file `begun` and then does `rest`.
  std::string script(const std::string& rest, const std::string& setup = {}) const
  {
    write("script.sh", setup + "\ntouch begun\n" + rest);
    return "<run command=\"sh script.sh\"/>";
  }

  bool waitForBegun() const
  {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!std::filesystem::exists(directory / "begun") && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2)); // a file is all that the process can tell
    return std::filesystem::remove(directory / "begun");
  }
};

TEST_F(ProcessTest, AProgramRunsInTheProjectsDirectoryWithCleanSurroundings)
{
  write("report.py", R"(import os, signal, sys
print("directory", os.getcwd())
print("arguments", sys.argv[1:])
print("url", os.environ["TARVIK_URL"], os.environ["TARVIK_TOKEN_FILE"], "PATH" in os.environ)
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
  EXPECT_EQ(run("<run command=\"python3 report.py 'a b' $HOME\" timeout=\"60\"/>"), "");
  ::signal(SIGHUP, SIG_DFL);
  ::close(inherited);
  const std::string name = "demo/t: ";
  EXPECT_THAT(output(capture),
              ElementsAre(name + "directory " + std::filesystem::canonical(directory).string(), name + "arguments ['a b', '$HOME']",
                          name + "url http://" + directory.string() + " /nowhere/token True", name + "input ''", name + "open []",
                          name + "leads True", name + "blocked set()", name + "hangup True", name + "no newline at the end"));
  EXPECT_THAT(output(capture, vu::log::Level::Warning), ElementsAre(name + "careful"));
}

TEST_F(ProcessTest, TheWayAProgramEndsDecidesTheOutcome)
{
  write("plain.sh", "exit 0");
  std::filesystem::create_directory(directory / "folder");
  std::filesystem::permissions(directory / write("bare.sh", "exit 0"), std::filesystem::perms::owner_all);
  std::filesystem::permissions(directory / write("whole.sh", "#!/bin/sh\nexit 0"), std::filesystem::perms::owner_all);
  for (const auto& [command, message] :
       std::map<std::string, std::string>{{"true", ""},
                                          {"sh plain.sh", ""},
                                          {"./whole.sh", ""},
                                          {"sh -c 'exit 3'", "sh ended with exit status 3; its output stands in the log"},
                                          {"sh -c 'kill -9 $$'", "sh was ended by signal 9 (Killed)"},
                                          {"./plain.sh", "cannot start ./plain.sh: Permission denied"},
                                          {"./bare.sh", "cannot start ./bare.sh: Exec format error"},
                                          {"./folder", "cannot start ./folder: Permission denied"},
                                          {"./none.sh", "cannot start ./none.sh: No such file or directory"}})
  {
    SCOPED_TRACE(command);
    EXPECT_EQ(run("<run command=\"" + command + "\"/>"), message);
  }
}

TEST_F(ProcessTest, ADirectoryThatHasGoneIsNamed)
{
  write("gone/behavior.xar", "<project format=\"1\"><run command=\"true\"/></project>");
  const auto id = manager->createBehavior(directory.string(), "gone/behavior.xar", "demo/gone");
  std::filesystem::remove_all(directory / "gone");
  manager->playBehavior(id);
  EXPECT_THAT(outcome(manager->waitForStopped(id)), HasSubstr("(the directory " + (directory / "gone").string() + " has gone)"));
}

TEST_F(ProcessTest, MuchOutputComesWholeAndLongLinesInParts)
{
  const vu::log::Capture capture;
  EXPECT_EQ(run("<run command=\"python3 -c 'print(&quot;x&quot; * 20000); [print(i) for i in range(5000)]'\"/>"), "");
  const auto lines = output(capture);
  ASSERT_EQ(lines.size(), 5003u);
  EXPECT_EQ(lines.at(2).size(), std::string("demo/t: ").size() + 20000 - 2 * OutputReader::lineLimit);
  EXPECT_EQ(lines.back(), "demo/t: 4999");
}

TEST_F(ProcessTest, ATimeOutEndsTheProgramAndFailsTheBehavior)
{
  EXPECT_EQ(run("<run command=\"sleep 1000\" timeout=\"0.05\"/>"), "sleep did not end within 0.05 s and was stopped");
  write("deaf.sh", "trap '' TERM\nwhile :; do sleep 1000; done");
  EXPECT_EQ(run("<run command=\"sh deaf.sh\" timeout=\"0.1\"/>"), "sh did not end within 0.1 s and was stopped");
}

TEST_F(ProcessTest, DeletionGivesAProgramItsGraceToCleanUp)
{
  start({{"framemanager", {{"terminateGraceMs", 30000}}}});
  const auto id = play(script("while :; do sleep 0.01; done", "trap 'echo resting > rested; exit 1' TERM"));
  ASSERT_TRUE(waitForBegun());
  manager->deleteBehavior(id);
  EXPECT_TRUE(std::filesystem::exists(directory / "rested"));
  EXPECT_EQ(signalsOf(id), "stopped");
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
}

TEST_F(ProcessTest, ABehaviorInsideThePackageRunsInItsOwnDirectory)
{
  write("deep/inside/show.sh", "pwd");
  write("deep/inside/behavior.xar", "<project format=\"1\"><run command=\"sh show.sh\"/></project>");
  const vu::log::Capture capture;
  const auto id = manager->createBehavior(directory.string(), "deep/inside/behavior.xar", "demo/deep");
  manager->playBehavior(id);
  EXPECT_EQ(outcome(manager->waitForStopped(id)), "");
  EXPECT_THAT(output(capture), ElementsAre("demo/deep: " + (std::filesystem::canonical(directory) / "deep/inside").string()));
}

} // namespace ZB::FrameManager
