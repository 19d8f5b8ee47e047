#include <csignal>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include <vu/value.hpp>

#include <testing/process.hpp>

// The command line against a host, each a process of its own, as in use.
namespace Tarvik::Test
{

using TestSupport::Process;
using TestSupport::patience;

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;
using vu::Value;

namespace
{
namespace fs = std::filesystem;

struct Result
{
  int code;
  std::string out;
  std::string error;

  Value json() const { return Value::parse(out); }
};

std::vector<Value> jsonLines(const std::string& text)
{
  std::istringstream stream(text);
  std::vector<Value> values;
  for (std::string line; std::getline(stream, line);)
    values.push_back(Value::parse(line));
  return values;
}

} // namespace

class EndToEnd : public testing::Test
{
protected:
  EndToEnd()
  {
    package("test", {{"short", R"(<event key="Test/Short" value="1"/><event key="Test/Short" value="2"/>)"},
                     {"endless", R"(<repeat><wait seconds="60"/></repeat>)"},
                     {"second", R"(<wait seconds="60"/>)"},
                     {"faulty", R"(<fail reason="no arm"/>)"}});
    _daemon.emplace(std::vector<std::string>{TARVIKD, "--root", root(), "--listen", "127.0.0.1:0"});
    if (!_daemon->waitForOutput("\n"))
      throw std::runtime_error("tarvikd does not start: " + _daemon->error());
  }

  ~EndToEnd() override
  {
    _daemon->signal(SIGTERM);
    const auto code = _daemon->waitForEnd();
    EXPECT_EQ(code, 0) << _daemon->error();
    _daemon.reset();
    fs::remove_all(_directory);
  }

  std::string root() const { return _directory / "root"; }
  std::string packagePath(const std::string& uuid) const { return _directory / uuid; }

  void package(const std::string& uuid, const std::vector<std::pair<std::string, std::string>>& behaviors) const
  {
    fs::create_directories(packagePath(uuid));
    std::ofstream manifest(fs::path(packagePath(uuid)) / "manifest.xml");
    manifest << "<package uuid=\"" << uuid << "\" version=\"1.0\">\n";
    for (const auto& [path, steps] : behaviors)
    {
      fs::create_directories(fs::path(packagePath(uuid)) / path);
      std::ofstream(fs::path(packagePath(uuid)) / path / "behavior.xar")
          << "<project format=\"1\" name=\"" << path << "\">" << steps << "</project>\n";
      manifest << "<behavior path=\"" << path << "\" nature=\"solitary\"><tag locale=\"en_US\">" << path << "-tag</tag></behavior>\n";
    }
    manifest << "</package>\n";
  }

  std::unique_ptr<Process> begin(std::vector<std::string> arguments) const
  {
    arguments.insert(arguments.begin(), {TARVIK, "--root", root()});
    return std::make_unique<Process>(arguments);
  }

  Result tarvik(const std::vector<std::string>& arguments) const
  {
    const auto process = begin(arguments);
    const auto code = process->waitForEnd();
    return {code.value_or(-1), process->output(), process->error()};
  }

  void install(const std::string& uuid = "test") const
  {
    const auto result = tarvik({"package", "install", packagePath(uuid)});
    ASSERT_EQ(result.code, 0) << result.error;
  }

  std::string state(const std::string& name) const
  {
    for (const auto& behavior : tarvik({"list", "--json"}).json())
      if (behavior["name"] == name)
        return behavior["state"];
    return "absent";
  }

  std::optional<Process> _daemon;

private:
  const fs::path _directory = fs::path(testing::TempDir()) /
                              ("tarvik-" + std::to_string(getpid()) + "-" + testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(EndToEnd, packageIsUsableAsSoonAsInstallHasReturnedAndGoneWhenRemoveHas)
{
  const auto installed = tarvik({"package", "install", packagePath("test")});
  EXPECT_EQ(installed.code, 0) << installed.error;
  EXPECT_EQ(installed.out, "test installed\n  test/short\n  test/endless\n  test/second\n  test/faulty\n");
  const auto list = tarvik({"list"});
  EXPECT_THAT(list.out, StartsWith("BEHAVIOR"));
  EXPECT_THAT(list.out, HasSubstr("test/short    installed  solitary  short-tag\n"));
  EXPECT_EQ(tarvik({"run", "test/short"}).code, 0);

  EXPECT_THAT(tarvik({"package", "list"}).out, HasSubstr("test     1.0      tarvik     4"));
  const auto removed = tarvik({"package", "remove", "test"});
  EXPECT_EQ(removed.code, 0) << removed.error;
  EXPECT_EQ(tarvik({"list", "--json"}).json(), Value::array());
  const auto again = tarvik({"package", "remove", "test"});
  EXPECT_EQ(again.code, 1);
  EXPECT_THAT(again.error, MatchesRegex("tarvik: no package \"test\" .*tarvik package list.*\n"));
}

TEST_F(EndToEnd, faultyPackageIsRefusedByCheckAndInstall)
{
  install();
  EXPECT_EQ(tarvik({"package", "check", packagePath("test")}).code, 0);
  std::ofstream(fs::path(packagePath("test")) / "manifest.xml") << "<package uuid=\"te/st\"/>";
  for (const auto* command : {"check", "install"})
  {
    SCOPED_TRACE(command);
    const auto result = tarvik({"package", command, packagePath("test")});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.error, HasSubstr("te/st"));
    EXPECT_EQ(tarvik({"package", command, packagePath("nothing")}).code, 1);
  }
  EXPECT_EQ(state("test/short"), "installed");
}

TEST_F(EndToEnd, runShowsProgressAndFailsWithTheReasonOfTheOneThatFailed)
{
  install();
  const auto result = tarvik({"run", "test/short", "test/faulty"});
  EXPECT_EQ(result.code, 1);
  EXPECT_THAT(result.out, AllOf(HasSubstr("test/short started\n"), HasSubstr("test/short ended\n"), HasSubstr("test/faulty failed\n")));
  EXPECT_THAT(result.error, MatchesRegex("tarvik: \"test/faulty\" failed: [^\n]*no arm[^\n]*\n"));

  const auto lines = jsonLines(tarvik({"--json", "run", "test/faulty"}).out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back()["state"], "failed");
  EXPECT_THAT(lines.back()["reason"].get<std::string>(), HasSubstr("no arm"));
}

TEST_F(EndToEnd, interruptedRunStopsItsBehaviorsAndExitsWith1)
{
  install();
  const auto run = begin({"run", "test/endless", "test/second"});
  ASSERT_TRUE(run->waitForOutput("test/endless started"));
  ASSERT_TRUE(run->waitForOutput("test/second started"));
  EXPECT_EQ(state("test/endless"), "running");
  run->signal(SIGINT);
  EXPECT_EQ(run->waitForEnd(), 1);
  EXPECT_THAT(run->error(), MatchesRegex("tarvik: interrupted[^\n]*\n"));
  EXPECT_EQ(state("test/endless"), "installed");
  EXPECT_EQ(state("test/second"), "installed");
}

TEST_F(EndToEnd, startedBehaviorsRunUntilTheyAreStopped)
{
  install();
  EXPECT_EQ(tarvik({"load", "test/second"}).code, 0);
  EXPECT_EQ(state("test/second"), "loaded");
  for (const auto* name : {"test/endless", "test/second"})
  {
    EXPECT_EQ(tarvik({"start", name}).code, 0);
    EXPECT_EQ(state(name), "running");
  }
  EXPECT_EQ(tarvik({"stop", "test/second"}).code, 0);
  EXPECT_NE(state("test/second"), "running");
  EXPECT_THAT(tarvik({"status"}).out, AllOf(HasSubstr("http://127.0.0.1:"), HasSubstr("1 running"), HasSubstr("test/endless")));
  EXPECT_EQ(tarvik({"stop", "--all"}).code, 0);
  EXPECT_NE(state("test/endless"), "running");
}

TEST_F(EndToEnd, unknownBehaviorIsRefusedWithAHint)
{
  install();
  for (const auto* command : {"run", "start", "stop", "load", "tags"})
  {
    SCOPED_TRACE(command);
    const auto result = tarvik({command, "test/dance"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.error, MatchesRegex("tarvik: no behavior \"test/dance\"[^\n]*\"tarvik list\"[^\n]*\n"));
  }
  EXPECT_THAT(tarvik({"start", "test"}).error, HasSubstr("perhaps \"test/short\" is meant"));
}

TEST_F(EndToEnd, tagsAndDefaultBehaviorsAreListed)
{
  install();
  EXPECT_EQ(tarvik({"tags"}).out, "endless-tag\nfaulty-tag\nsecond-tag\nshort-tag\n");
  EXPECT_EQ(tarvik({"tags", "test/short", "--json"}).json(), Value::array({"short-tag"}));
  EXPECT_EQ(tarvik({"default", "add", "test/endless"}).code, 0);
  EXPECT_EQ(tarvik({"default", "list"}).out, "test/endless\n");
  const auto watch = begin({"watch"});
  ASSERT_TRUE(watch->waitForError("watching"));
  EXPECT_EQ(tarvik({"default", "play"}).code, 0);
  EXPECT_TRUE(watch->waitForOutput("ZBBehaviorManager.behaviorStarted(\"test/endless\")"));
  EXPECT_EQ(tarvik({"default", "remove", "test/endless"}).code, 0);
  EXPECT_EQ(tarvik({"default", "list"}).out, "");
}

TEST_F(EndToEnd, watchTellsSignalsAndEventsInTheirOrderAndEndsOnInterruptWith0)
{
  install();
  const auto watch = begin({"watch", "--json"});
  ASSERT_TRUE(watch->waitForError("watching"));
  ASSERT_EQ(tarvik({"run", "test/short"}).code, 0);
  ASSERT_EQ(tarvik({"run", "test/faulty"}).code, 1);
  ASSERT_EQ(tarvik({"call", "ZBMemory.declareEvent", "Test/Last"}).code, 0);
  ASSERT_EQ(tarvik({"call", "ZBMemory.raiseEvent", "Test/Last", "true"}).code, 0);
  ASSERT_TRUE(watch->waitForOutput("Test/Last"));
  watch->signal(SIGINT);
  EXPECT_EQ(watch->waitForEnd(), 0);

  std::vector<std::string> seen;
  for (const auto& line : jsonLines(watch->output()))
  {
    const auto name = line.value("key", line.value("signal", ""));
    if (line["kind"] == "event" && name.starts_with("Test/"))
      seen.push_back(name + "=" + line["value"].dump());
    else if (line.value("service", "") == "ZBBehaviorManager" &&
             (name == "behaviorStarted" || name == "behaviorStopped" || name == "behaviorFailed"))
      seen.push_back(name + " " + line["arguments"][0].get<std::string>());
  }
  // A behavior plays already while its start is being announced, so that its
  // events and the signal have no fixed order between them.
  std::vector<std::string> signals;
  std::vector<std::string> events;
  for (const auto& each : seen)
    (each.starts_with("Test/") ? events : signals).push_back(each);
  EXPECT_THAT(events, ElementsAre("Test/Short=1", "Test/Short=2", "Test/Last=true"));
  EXPECT_THAT(signals, ElementsAre("behaviorStarted test/short", "behaviorStopped test/short", "behaviorStarted test/faulty",
                                   "behaviorFailed test/faulty", "behaviorStopped test/faulty"));
  EXPECT_THAT(seen.back(), "Test/Last=true");
}

TEST_F(EndToEnd, callPassesJsonAndStringsAndAnswersWithTheResult)
{
  EXPECT_EQ(tarvik({"call", "ZBMemory.insertData", "Test/Value", R"(["a", {"b": -1}])"}).out, "");
  EXPECT_EQ(tarvik({"call", "ZBMemory.getData", "Test/Value", "--json"}).json(), Value::parse(R"(["a", {"b": -1}])"));
  EXPECT_EQ(tarvik({"call", "ZBMemory.insertData", "Test/Number", "-1.5"}).code, 0);
  EXPECT_EQ(tarvik({"call", "ZBMemory.getData", "Test/Number"}).out, "-1.5\n");
  EXPECT_EQ(tarvik({"call", "ZBMemory.insertData", "list", "run"}).code, 0);
  EXPECT_EQ(tarvik({"call", "ZBMemory.getData", "list"}).out, "run\n");
  EXPECT_EQ(tarvik({"call", "ZBMemory.insertData", "\"--json\"", "--text"}).code, 0);
  EXPECT_EQ(tarvik({"call", "ZBMemory.getData", "\"--json\""}).out, "--text\n");
}

TEST_F(EndToEnd, refusedCallTellsWhereToLook)
{
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{{{"call", "Nobody.greet"}, "tarvik services"},
                                                                            {{"describe", "Nobody"}, "tarvik services"},
                                                                            {{"call", "ZBMemory.dance"}, "tarvik describe ZBMemory"},
                                                                            {{"call", "ZBMemory.getData"}, "tarvik describe ZBMemory"},
                                                                            {{"call", "ZBMemory.getData", "1"}, "tarvik describe ZBMemory"},
                                                                            {{"call", "ZBMemory.getData", "Test/Unknown"}, "Test/Unknown"}};
  for (const auto& [arguments, advice] : cases)
  {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const auto result = tarvik(arguments);
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.error, AllOf(StartsWith("tarvik: "), HasSubstr(advice)));
    EXPECT_THAT(result.out, IsEmpty());
  }
}

TEST_F(EndToEnd, historyTellsWhyEachRunEnded)
{
  EXPECT_THAT(tarvik({"history"}).out, HasSubstr("no behavior has played yet"));
  install();
  tarvik({"run", "test/short"});
  tarvik({"run", "test/faulty"});
  tarvik({"start", "test/endless"});
  tarvik({"stop", "test/endless"});
  tarvik({"start", "test/second"});
  EXPECT_THAT(tarvik({"history"}).out, AllOf(MatchesRegex("BEHAVIOR +BEGAN +DURATION +END +STARTED BY\ntest/second .* running +local\n"
                                                          "test/endless .* stopped by local +local\n(.*\n)*"),
                                             HasSubstr("failed at fail (faulty/behavior.xar:1): no arm"), HasSubstr("ended by itself")));
  const auto runs = tarvik({"history", "--json", "--limit", "1", "short"}).json();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0]["behavior"], "test/short");
  EXPECT_EQ(tarvik({"history", "--limit", "0"}).code, 2);
  EXPECT_THAT(tarvik({"history", "test/unknown"}).out, HasSubstr("no run of \"test/unknown\""));
}

TEST_F(EndToEnd, servicesAreListedAndDescribed)
{
  EXPECT_THAT(tarvik({"services"}).out,
              HasSubstr("PackageManager\nRunHistory\nTokens\nZBBehaviorManager\nZBFrameManager\nZBMemory\nZBPreferences\n"));
  EXPECT_THAT(tarvik({"describe", "ZBMemory"}).out,
              AllOf(StartsWith("ZBMemory\n"), HasSubstr("getData("), HasSubstr("eventRaised(string, value)")));
  EXPECT_EQ(tarvik({"describe", "ZBMemory", "--json"}).json()["name"], "ZBMemory");
}

TEST_F(EndToEnd, addressAndTokenFileReachTheHostAndAWrongTokenIsRefused)
{
  const auto firstLine = [this](const std::string& name)
  {
    std::string line;
    std::getline(std::ifstream(fs::path(root()) / name), line);
    return line;
  };
  const auto url = firstLine("run/endpoint");
  const auto with = [&url](const std::string& tokenFile)
  {
    Process process({TARVIK, "--url", url, "--token-file", tokenFile, "services"});
    const auto code = process.waitForEnd().value_or(-1);
    return std::pair(code, process.error());
  };
  EXPECT_EQ(with(root() + "/run/token").first, 0);
  const auto refused = testing::Pair(1, MatchesRegex("tarvik: [^\n]*--token-file[^\n]*\n"));
  const auto alice = root() + "/alice";
  std::ofstream(alice) << "wrong\n";
  EXPECT_THAT(with(alice), refused);
  const auto token = tarvik({"token", "add", "alice", "--role", "observer"}).out;
  std::ofstream(alice) << token;
  EXPECT_EQ(with(alice).first, 0);
  EXPECT_THAT(tarvik({"token", "list"}).out, MatchesRegex("NAME +ROLE +CREATED\nalice +observer +20[^ ]*Z\n"));
  EXPECT_EQ(tarvik({"open"}).out, url + "/?token=" + firstLine("run/token") + "\n");
  EXPECT_EQ(tarvik({"token", "remove", "alice"}).code, 0);
  EXPECT_THAT(with(alice), refused);
  EXPECT_EQ(tarvik({"token", "remove", "alice"}).code, 1);
  EXPECT_EQ(tarvik({"token", "list", "--json"}).json(), Value::array());
  EXPECT_EQ(_daemon->error().find(token.substr(0, 16)), std::string::npos) << "no token gets into the log";
}

TEST_F(EndToEnd, hostThatVanishesEndsWhoWaitsWith3)
{
  install();
  const auto run = begin({"run", "test/endless"});
  const auto watch = begin({"watch"});
  ASSERT_TRUE(run->waitForOutput("test/endless started"));
  ASSERT_TRUE(watch->waitForError("watching"));
  _daemon->signal(SIGKILL);
  EXPECT_EQ(run->waitForEnd(), 3);
  EXPECT_THAT(run->error(), HasSubstr("connection to the host"));
  EXPECT_EQ(watch->waitForEnd(), 3);
  EXPECT_EQ(tarvik({"list"}).code, 3);
  _daemon->waitForEnd();
  _daemon.emplace(std::vector<std::string>{TARVIKD, "--root", root(), "--listen", "127.0.0.1:0"});
  EXPECT_TRUE(_daemon->waitForOutput("\n")) << _daemon->error();
}

} // namespace Tarvik::Test
