#include "framemanagerfixture.hpp"

#include <future>
#include <latch>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace ZB::FrameManager
{

namespace
{

/// Makes tokens for runs as the host's service does, or fails to.
class Tokens final : public ZBModule
{
public:
  Tokens(std::shared_ptr<ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
  {
    functionName("_beginRun", getName(), "Makes one");
    addParam("caller", "Whose it is");
    addParam("may", "What it may call");
    setReturn("run", "Number and file");
    bindMethod(this, &Tokens::beginRun);
    functionName("_endRun", getName(), "Takes it back");
    addParam("number", "Of the token");
    bindMethod(this, &Tokens::endRun);
  }

  vu::Value beginRun(const std::string& caller, const std::vector<std::string>& may)
  {
    journal.add("begin " + caller + " " + vu::Value(may).dump());
    if (makes)
      makes->wait();
    if (refuses)
      throw ZBError(getName(), "_beginRun", "the disk is full");
    return {{"number", 7}, {"file", "/run/7"}};
  }
  void endRun(const int& number) { journal.add("end " + std::to_string(number)); }

  TestSupport::Journal journal;
  std::atomic<bool> refuses = false;
  std::latch* makes = nullptr; ///< waited for
};

} // namespace

class RightsTest : public FrameManagerTest
{
protected:
  void ask(const std::string& rights) const { write("manifest.xml", "<package uuid='demo'>" + rights + "</package>"); }
  std::string runFor(const std::string& starter, const std::string& steps) const
  {
    const auto id = create(steps);
    {
      const vu::CallerScope caller(starter);
      manager->playBehavior(id);
    }
    return outcome(manager->waitForStopped(id));
  }
};

TEST_F(RightsTest, ABehaviorMayCallWhatItsManifestSaysAndNoMoreWhoeverStartsIt)
{
  const std::string reset = "<call service=\"Robot\" method=\"reset\"/>";
  const std::string refused = "the behavior may not call Robot.reset: its package's manifest does not say <may call=\"Robot.reset\"/>";
  const std::string always = note("a") + "<event key=\"E\" value=\"1\"/>"
                                         "<call service=\"ZBMemory\" method=\"insertData\" arguments='[\"k\", 1]'/>";
  EXPECT_EQ(run(always), "") << "without a manifest";
  EXPECT_EQ(runFor("local", reset), refused);
  for (const auto& [rights, text] : {std::pair("<may call='Robot.note'/>", refused), {"<may call='Robot.*'/>", ""}})
  {
    ask(rights);
    EXPECT_EQ(runFor("local", always + reset), text) << rights;
  }
  const auto created = create(reset);
  ask("");
  manager->playBehavior(created);
  EXPECT_EQ(outcome(manager->waitForStopped(created)), "") << "it has the rights that it was created with";
  ask("<may call='Robot'/>");
  EXPECT_THAT(errorOf([&] { create(reset); }), HasSubstr("manifest.xml, line 1"));
}

TEST_F(RightsTest, CallsAreMadeAndLoggedInTheNameOfTheBehaviorForItsStarter)
{
  const vu::log::Capture capture;
  for (const auto* starter : {"alice", "greetings/wait for it for alice", "ZBBehaviorManager", ""})
    EXPECT_EQ(runFor(starter, note("x") + "<event key=\"E\" value=\"1\"/>"), "");
  EXPECT_THAT(robot->callers.lines(),
              ElementsAre("demo/t for alice", "demo/t for alice", "demo/t for ZBBehaviorManager", "demo/t for host"));
  std::vector<std::string> logged;
  for (const auto& line : capture.lines())
    if (line.category == "framemanager" && line.function == "call" && line.level == vu::log::Level::Info)
      logged.push_back(line.caller + ": " + line.message);
  ASSERT_EQ(logged.size(), 4u) << "events are told at debug level";
  EXPECT_EQ(logged.front(), "demo/t for alice: Robot.note(\"x\"): ok");
}

TEST_F(RightsTest, TheProgramsOfARunShareATokenThatEndsBeforeTheRunIsToldToHaveEnded)
{
  auto& tokens = broker->createModule<Tokens>("Tokens");
  manager->behaviorStopped.connect([&tokens](const std::string&) { tokens.journal.add("told"); });
  const std::string program = "<run command=\"sh -c 'echo ${TARVIK_TOKEN_FILE-none}'\"/>";
  ask("<may call='Robot.reset'/>");
  const vu::log::Capture capture;
  EXPECT_EQ(runFor("alice", note("none")), "");
  EXPECT_EQ(runFor("alice", "<parallel>" + program + program + "</parallel>" + program), "");
  tokens.refuses = true;
  EXPECT_EQ(runFor("alice", program), "");
  EXPECT_THAT(tokens.journal.lines(), ElementsAre("told", "begin demo/t for alice [\"Robot.reset\"]", "end 7", "told",
                                                  "begin demo/t for alice [\"Robot.reset\"]", "told"));
  EXPECT_EQ(capture.count(vu::log::Level::Info, "demo/t: /run/7"), 3u);
  EXPECT_EQ(capture.count(vu::log::Level::Info, "demo/t: none"), 1u);
  EXPECT_EQ(capture.count(vu::log::Level::Warning, "have no token: the disk is full"), 1u);
}

TEST_F(RightsTest, ATokenThatIsBeingMadeWhenTheRunIsStoppedIsTakenBack)
{
  auto& tokens = broker->createModule<Tokens>("Tokens");
  std::latch makes(1);
  tokens.makes = &makes;
  const auto id = play("<run command=\"touch ran\"/>");
  ASSERT_EQ(tokens.journal.waitForCount(1).size(), 1u);
  auto deleted = std::async(std::launch::async, [&] { return errorOf([&] { manager->deleteBehavior(id); }); });
  EXPECT_FALSE(signals.waitFor(id + " stopped", std::chrono::milliseconds(50)));
  makes.count_down();
  EXPECT_EQ(deleted.get(), "no error");
  EXPECT_EQ(tokens.journal.count("end 7"), 1u);
  EXPECT_FALSE(std::filesystem::exists(directory / "ran"));
}

} // namespace ZB::FrameManager
