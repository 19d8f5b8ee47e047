#include "framemanagerfixture.hpp"

#include <csignal>
#include <thread>

using testing::AnyOf;

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

  static bool eventually(const std::function<bool()>& condition)
  {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline)
    {
      if (condition())
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(2)); // other processes give no sign
    }
    return false;
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
    try
    {
      manager->deleteBehavior(id);
    }
    catch (const ZBError&)
    {
    }
    EXPECT_EQ(outcome(stopped), "");
    EXPECT_EQ(processes(), std::set<pid_t>());
    EXPECT_EQ(signalsOf(id), "stopped");
  }
}

TEST_F(GuardTest, NothingIsLeftWhereAProgramEndsOrItsTimeIsOver)
{
  const auto daemon = escapes.at("leaves a daemon");
  EXPECT_EQ(run(program(daemon)), "");
  EXPECT_EQ(processes(), std::set<pid_t>());
  EXPECT_EQ(run(program("deaf(); os.fork() or os.setsid()", "timeout=\"0.3\"")), "python3 did not end within 0.3 s and was stopped");
  EXPECT_EQ(processes(), std::set<pid_t>());
  EXPECT_EQ(run("<parallel>" + program(daemon) + "<fail reason=\"no arm\"/></parallel>"), "no arm");
  EXPECT_EQ(processes(), std::set<pid_t>());
}

TEST_F(GuardTest, AGuardThatIsKilledTakesTheProgramAlongAndFailsTheBehavior)
{
  for (const auto signal : {"TERM", "INT", "HUP", "KILL"})
  {
    const auto id = play(program("os.kill(os.getppid(), signal.SIG" + std::string(signal) + ")"));
    const auto stopped = manager->waitForStopped(id);
    if (signal == std::string("KILL"))
    {
      EXPECT_EQ(outcome(stopped), "python3: its exit status is lost");
      EXPECT_TRUE(eventually([this] { return processes().empty(); }));
      continue;
    }
    EXPECT_TRUE(begun()) << signal;
    EXPECT_FALSE(stopped.isFinished());
    manager->deleteBehavior(id);
  }
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
  constexpr int count = 10;
  start({{"framemanager", {{"terminateGraceMs", 1000}}}});
  const auto deaf = program("deaf(); open('deaf' + str(os.getpid()), 'w').close()");
  std::vector<std::string> ids;
  std::vector<vu::Future<void>> stopped;
  for (int i = 0; i < count; ++i)
  {
    ids.push_back(play(deaf));
    stopped.push_back(manager->waitForStopped(ids.back()));
  }
  const auto unplayed = create("");
  const auto haveBegun = [this]
  {
    const std::filesystem::directory_iterator entries(directory);
    return std::count_if(begin(entries), end(entries),
                         [](const auto& entry) { return entry.path().filename().string().starts_with("deaf"); }) == count;
  };
  ASSERT_TRUE(eventually(haveBegun));
  const auto before = std::chrono::steady_clock::now();
  broker->getProxy("ZBFrameManager")->call<void>("_beginClosing");
  EXPECT_THROW(create(""), ZBError);
  EXPECT_THROW(manager->playBehavior(unplayed), ZBError);
  for (const auto& id : ids) // as the behavior manager does when it goes
    try
    {
      manager->deleteBehavior(id);
    }
    catch (const ZBError&)
    {
    }
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(count * 1000 / 2));
  EXPECT_EQ(processes(), std::set<pid_t>());
  for (const auto& each : stopped)
    EXPECT_EQ(outcome(each), "");
  for (const auto& id : ids)
    EXPECT_EQ(signalsOf(id), "stopped");
}

} // namespace ZB::FrameManager
