#include "framemanagerfixture.hpp"

#include <csignal>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ZB::FrameManager
{

namespace
{

/// How a program tries to outlive its behavior: it does this, makes the file
/// "begun", and sleeps, unless it has replaced itself.
const std::map<std::string, std::string> escapes{
    {"ignores the request to end", "signal.signal(signal.SIGTERM, signal.SIG_IGN)"},
    {"is halted", "begun(); os.kill(os.getpid(), signal.SIGSTOP)"},
    {"has a child that ignores it", "os.fork() or signal.signal(signal.SIGTERM, signal.SIG_IGN)"},
    {"has a child in a session of its own", "os.fork() or (os.setsid(), begun())"},
    {"leaves a daemon", "deaf(); os.fork() and leave(); os.setsid(); os.fork() and leave(); os.close(1); os.close(2)"},
    {"leaves a process in another group", "deaf(); os.fork() and leave(); os.setpgid(0, 0)"},
    {"joins the group of its guard", "os.setpgid(0, os.getpgid(os.getppid())); deaf()"},
    {"forks on and on from session to session", "deaf(); begun()\nwhile True:\n  os.fork() and leave(); os.setsid(); time.sleep(0.002)"},
    {"halts its guard", "deaf(); os.kill(os.getppid(), signal.SIGSTOP)"},
    {"halts its guard without end", "deaf(); begun()\nwhile True: os.kill(os.getppid(), signal.SIGSTOP)"},
    {"leaves a daemon that halts its guard without end",
     "deaf(); os.fork() and leave(); os.setsid(); begun()\nwhile True: os.kill(os.getppid(), signal.SIGSTOP)"},
    {"is its own children's reaper", "deaf(); __import__('ctypes').CDLL(None).prctl(36, 1); os.fork() or os.setsid()"},
    {"ends its first thread",
     "deaf(); threading.Thread(target=sleep).start(); begun(); __import__('ctypes').CDLL(None).pthread_exit(None)"}};

const std::string prelude = R"(import os, signal, sys, threading, time
def begun(): open('begun', 'w').close()
def deaf(): signal.signal(signal.SIGTERM, signal.SIG_IGN)
def sleep(): time.sleep(1000)
def leave(): os._exit(0)
)";

} // namespace

class GuardTest : public FrameManagerTest
{
protected:
  std::string program(const std::string& actions, const std::string& attributes = {}) const
  {
    write("escape.py", prelude + actions + "\nbegun()\nsleep()\n");
    return "<run command=\"python3 escape.py\" " + attributes + "/>";
  }

  bool begun() const
  {
    return eventually([this] { return std::filesystem::remove(directory / "begun"); });
  }
};

TEST_F(GuardTest, NoProcessOfABehaviorLivesOnceItIsDeletedHoweverItTriesTo)
{
  for (const auto& [name, actions] : escapes)
  {
    SCOPED_TRACE(name);
    const auto id = play(program(actions));
    // Where the program leaves its child behind, the behavior may have ended.
    const auto stopped = manager->waitForStopped(id);
    EXPECT_TRUE(begun());
    errorOf([&, &id = id] { manager->deleteBehavior(id); });
    EXPECT_EQ(outcome(stopped), "");
    EXPECT_EQ(processes(), std::set<pid_t>());
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a guard is left as a zombie";
    EXPECT_EQ(signalsOf(id), "stopped");
  }
}

TEST_F(GuardTest, NothingIsLeftWhereAProgramEndsOrItsTimeIsOver)
{
  const auto daemon = escapes.at("leaves a daemon");
  EXPECT_EQ(run(program(daemon)), "");
  EXPECT_EQ(processes(), std::set<pid_t>());
  EXPECT_EQ(run("<parallel>" + program(daemon) + "<fail reason=\"no arm\"/></parallel>"), "no arm");
  EXPECT_EQ(processes(), std::set<pid_t>());
  EXPECT_EQ(run(program("deaf(); os.fork() or os.setsid()", "timeout=\"0.3\"")), "python3 did not end within 0.3 s and was stopped");
  EXPECT_EQ(processes(), std::set<pid_t>());
}

TEST_F(GuardTest, AGuardThatIsKilledTakesTheProgramAlongAndFailsTheBehavior)
{
  for (const auto* signal : {"TERM", "INT", "HUP"})
  {
    const auto id = play(program("os.kill(os.getppid(), signal.SIG" + std::string(signal) + ")"));
    EXPECT_TRUE(begun()) << signal;
    EXPECT_TRUE(holds(id));
    manager->deleteBehavior(id);
  }
  // The child stays behind in the program's group, of which the guard cannot know any more.
  EXPECT_EQ(run(program("os.fork() and (os.kill(os.getppid(), signal.SIGKILL), sleep())")), "python3: its exit status is lost");
  EXPECT_TRUE(eventually([this] { return processes().empty(); }));
}

/// This process is somebody without rights meanwhile.
class WithoutRights
{
public:
  WithoutRights() { EXPECT_EQ(::setresuid(nobody, nobody, 0), 0); }
  ~WithoutRights() { EXPECT_EQ(::setresuid(0, 0, 0), 0); }

  static constexpr uid_t nobody = 65534;
};

TEST_F(GuardTest, WhatCannotBeKilledIsTheErrorOfWhoeverAskedAndToldWithTheEnd)
{
  if (::getuid() != 0 || !std::filesystem::exists("/usr/bin/setpriv"))
    GTEST_SKIP() << "only root can make a program that this process may not end";
  // A program that becomes root.
  const auto becoming = directory / "become";
  std::filesystem::copy_file("/usr/bin/setpriv", becoming);
  ASSERT_EQ(::chown(directory.string().c_str(), WithoutRights::nobody, WithoutRights::nobody), 0);
  ASSERT_EQ(::chmod(becoming.c_str(), 04755), 0);
  const vu::log::Capture log;
  TestSupport::Journal ends;
  manager->instanceEnded.connect([&](const std::string&, const std::string&, const std::string& outcome, const std::string&,
                                     const std::string& message, const std::string&)
                                 { ends.add(outcome + " " + message.substr(0, message.find(" (processes"))); });
  write("root.sh", "id -u > user; touch begun; exec sleep 1000");
  std::string refusal;
  {
    const WithoutRights meanwhile;
    const auto id = play("<run command=\"./become --reuid 0 --clear-groups sh root.sh\"/>");
    ASSERT_TRUE(begun());
    refusal = errorOf([&] { manager->deleteBehavior(id); });
  }
  if (TestSupport::readFile(directory / "user") != "0\n")
    GTEST_SKIP() << "programs do not change their user here";
  const std::string left = "./become cannot be ended and is left alone";
  EXPECT_THAT(refusal, testing::HasSubstr(left));
  EXPECT_THAT(ends.lines(), testing::ElementsAre("stopped " + left));
  EXPECT_EQ(log.count(vu::log::Level::Error, left), 1u);
  EXPECT_FALSE(processes().empty());
  for (const auto process : processes())
    ::kill(process, SIGKILL);
  EXPECT_TRUE(eventually([] { return ::waitpid(-1, nullptr, WNOHANG) == -1; })) << "its guard is left as a zombie";
}

TEST_F(GuardTest, AMissingGuardFailsTheStepAndNothingElse)
{
  start({}, {}, "/nowhere/tarvik-guard");
  EXPECT_EQ(run("<run command=\"true\"/>"),
            "cannot start true: /nowhere/tarvik-guard, which guards programs, cannot be executed; is the installation whole?");
  EXPECT_EQ(run("<log message=\"fine\"/>"), "");
}

TEST_F(GuardTest, ClosingGivesAllProgramsOneDeadlineAndRefusesFurtherBehaviors)
{
  constexpr std::size_t count = 10;
  start({{"framemanager", {{"terminateGraceMs", 1000}}}});
  const auto deaf = program("deaf(); open('deaf' + str(os.getpid()), 'w').close()");
  std::vector<std::string> ids;
  for (std::size_t i = 0; i < count; ++i)
    ids.push_back(play(deaf));
  const auto unplayed = create("");
  ASSERT_TRUE(eventually([this] { return TestSupport::namesIn(directory).size() == count + 3; })); // beside project, script and "begun"
  const auto before = std::chrono::steady_clock::now();
  broker->getProxy("ZBFrameManager")->call<void>("_beginClosing");
  EXPECT_THAT(errorOf([&] { create(""); }), testing::HasSubstr("the host is shutting down"));
  EXPECT_THROW(manager->playBehavior(unplayed), ZBError);
  for (const auto& id : ids) // as the behavior manager does when it goes
    errorOf([&] { manager->deleteBehavior(id); });
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(count * 1000 / 2));
  EXPECT_EQ(processes(), std::set<pid_t>());
  for (const auto& id : ids)
    EXPECT_EQ(signalsOf(id), "stopped");
}

} // namespace ZB::FrameManager
