#include <csignal>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include <vu/value.hpp>

#include <testing/files.hpp>
#include <testing/process.hpp>

// The command line against a host, each a process of its own, as in use.
namespace Tarvik::Test
{

using TestSupport::Process;
using TestSupport::readFile;
using TestSupport::writeFile;

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;
using vu::Value;

namespace
{

struct Result
{
  int code;
  std::string out;
  std::string error;
};

std::vector<Value> jsonLines(const std::string& text)
{
  std::istringstream stream(text);
  std::vector<Value> values;
  for (std::string line; std::getline(stream, line);)
    values.push_back(Value::parse(line));
  return values;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

} // namespace

class EndToEnd : public testing::Test
{
protected:
  EndToEnd()
  {
    TestSupport::writePackage(package, "test",
                              {{"short", R"(<event key="Test/Short" value="1"/><event key="Test/Short" value="2"/>)"},
                               {"endless", R"(<repeat><wait seconds="60"/></repeat>)"},
                               {"waiting", R"(<wait seconds="60"/>)"},
                               {"faulty", R"(<fail reason="no arm"/>)"}});
    writeFile(package / "manifest.xml", R"(<package uuid="test" version="1.0">
      <behavior path="short" nature="solitary"><tag locale="en_US">brief</tag></behavior>
      <behavior path="endless"/><behavior path="waiting"/><behavior path="faulty"/></package>)");
    if (!_daemon.waitForOutput("\n"))
      throw std::runtime_error("tarvikd does not start: " + _daemon.error());
  }

  ~EndToEnd() override
  {
    _daemon.signal(SIGTERM);
    EXPECT_EQ(_daemon.waitForEnd(), _expectedEnd) << _daemon.error();
  }

  std::unique_ptr<Process> begin(std::vector<std::string> arguments) const
  {
    arguments.insert(arguments.begin(), {TARVIK, "--root", root});
    return std::make_unique<Process>(arguments);
  }

  static Result ended(Process& process)
  {
    const auto code = process.waitForEnd();
    return {code.value_or(-1), process.output(), process.error()};
  }
  Result tarvik(const std::vector<std::string>& arguments) const { return ended(*begin(arguments)); }

  void install() const
  {
    const auto result = tarvik({"package", "install", package});
    ASSERT_EQ(result.code, 0) << result.error;
  }

  std::string state(const std::string& name) const
  {
    for (const auto& behavior : Value::parse(tarvik({"list", "--json"}).out))
      if (behavior["name"] == name)
        return behavior["state"];
    return "absent";
  }

  const TestSupport::TemporaryDirectory directory;
  const std::string root = directory / "root";
  const std::filesystem::path package = directory / "test";
  Process _daemon{std::vector<std::string>{TARVIKD, "--root", root, "--listen", "127.0.0.1:0"}};
  int _expectedEnd = 0;
};

TEST_F(EndToEnd, everyCommandAnswersInJsonAndInNothingElse)
{
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
      {{"package", "check", package}, R"("uuid":"test")"},
      {{"package", "install", package}, R"("state":"installed")"},
      {{"package", "list"}, R"("installer":"tarvik")"},
      {{"tags"}, R"(["brief"])"},
      {{"tags", "test/endless"}, "[]"},
      {{"load", "test/endless"}, R"({"name":"test/endless","state":"loaded"})"},
      {{"list"}, R"({"name":"test/endless","nature":"","state":"loaded","tags":[]})"},
      {{"start", "test/endless"}, R"({"name":"test/endless","state":"started"})"},
      {{"status"}, R"("running":["test/endless"])"},
      {{"stop", "endless"}, R"({"name":"test/endless","state":"stopped"})"},
      {{"start", "test/waiting"}, "started"},
      {{"stop", "--all"}, R"({"state":"stopped"})"},
      {{"status"}, R"("running":[])"},
      {{"run", "test/short"}, R"("state":"ended"})"},
      {{"history", "--limit", "1", "short"}, R"("behavior":"test/short")"},
      {{"default", "add", "test/endless"}, "added"},
      {{"default", "list"}, R"(["test/endless"])"},
      {{"default", "play"}, R"({"state":"started"})"},
      {{"default", "remove", "test/endless"}, "removed"},
      {{"default", "list"}, "[]"},
      {{"services"}, R"(["PackageManager","RunHistory","Tokens","ZBBehaviorManager","ZBFrameManager","ZBMemory","ZBPreferences"])"},
      {{"describe", "ZBMemory"}, R"("name":"ZBMemory")"},
      {{"call", "ZBMemory.insertData", "k", "1"}, "null"},
      {{"open"}, "/?code="},
      {{"token", "add", "alice", "--role", "observer"}, R"("role":"observer")"},
      {{"token", "list"}, R"("name":"alice")"},
      {{"token", "remove", "alice"}, R"({"name":"alice","state":"removed"})"},
      {{"package", "remove", "test"}, R"("state":"removed")"}};
  std::set<std::string> asked{"watch"}; // which does not end; see below
  for (const auto& [arguments, part] : cases)
  {
    SCOPED_TRACE(testing::PrintToString(arguments));
    asked.insert(arguments.front());
    auto line = arguments;
    line.emplace_back("--json");
    const auto result = tarvik(line);
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.error, IsEmpty());
    std::vector<Value> values;
    ASSERT_NO_THROW(values = jsonLines(result.out)) << result.out;
    ASSERT_FALSE(values.empty());
    EXPECT_THAT(values.back().dump(), HasSubstr(part));
  }
  std::istringstream help(tarvik({"--help"}).out);
  for (std::string line; std::getline(help, line) && line != "Subcommands:";)
    ;
  for (std::string line; std::getline(help, line) && line.starts_with("  ");)
    EXPECT_TRUE(line.starts_with("   ") || asked.count(line.substr(2, line.find(' ', 2) - 2)) == 1) << line;
}

TEST_F(EndToEnd, packageIsUsableAsSoonAsInstallHasReturnedAndGoneWhenRemoveHas)
{
  EXPECT_EQ(tarvik({"package", "install", package}).out, "test installed\n  test/short\n  test/endless\n  test/waiting\n  test/faulty\n");
  EXPECT_THAT(tarvik({"list"}).out, AllOf(StartsWith("BEHAVIOR"), HasSubstr("test/short    installed  solitary  brief\n")));
  EXPECT_EQ(tarvik({"run", "test/short"}).code, 0);
  EXPECT_THAT(tarvik({"package", "list"}).out, HasSubstr("test     1.0      tarvik     4"));
  EXPECT_THAT(tarvik({"status"}).out, AllOf(HasSubstr("http://127.0.0.1:"), HasSubstr("4 installed, 0 loaded, 0 running")));

  writeFile(package / "manifest.xml", "<package uuid=\"te/st\"/>");
  for (const auto* command : {"check", "install"})
  {
    SCOPED_TRACE(command);
    const auto refused = tarvik({"package", command, package});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.error, HasSubstr("te/st"));
    EXPECT_EQ(tarvik({"package", command, directory / "nothing"}).code, 1);
  }
  EXPECT_EQ(state("test/short"), "installed");

  EXPECT_EQ(tarvik({"package", "remove", "test"}).code, 0);
  EXPECT_EQ(state("test/short"), "absent");
  const auto again = tarvik({"package", "remove", "test"});
  EXPECT_EQ(again.code, 1);
  EXPECT_THAT(again.error, MatchesRegex("tarvik: no package \"test\" .*tarvik package list.*\n"));
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
  const auto run = begin({"run", "test/endless", "test/waiting"});
  ASSERT_TRUE(run->waitForOutput("test/endless started"));
  ASSERT_TRUE(run->waitForOutput("test/waiting started"));
  EXPECT_EQ(state("test/endless"), "running");
  run->signal(SIGINT);
  EXPECT_EQ(run->waitForEnd(), 1);
  EXPECT_THAT(run->error(), MatchesRegex("tarvik: interrupted[^\n]*\n"));
  EXPECT_EQ(state("test/endless"), "installed");
  EXPECT_EQ(state("test/waiting"), "installed");
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

  // A behavior plays already while its start is being announced, so that its
  // events and the signal have no fixed order between them.
  std::vector<std::string> signals;
  std::vector<std::string> events;
  for (const auto& line : jsonLines(watch->output()))
    if (line["kind"] == "event" && line["key"].get<std::string>().starts_with("Test/"))
      events.push_back(line["key"].get<std::string>() + "=" + line["value"].dump());
    else if (line.value("service", "") == "ZBBehaviorManager" && line["signal"] != "behaviorLoaded")
      signals.push_back(line["signal"].get<std::string>() + " " + line["arguments"][0].get<std::string>());
  EXPECT_EQ(watch->output().find("eventRaised"), std::string::npos) << "events are told once";
  EXPECT_THAT(events, ElementsAre("Test/Short=1", "Test/Short=2", "Test/Last=true"));
  EXPECT_THAT(signals, ElementsAre("behaviorStarted test/short", "behaviorStopped test/short", "behaviorStarted test/faulty",
                                   "behaviorFailed test/faulty", "behaviorStopped test/faulty"));
}

TEST_F(EndToEnd, callPassesJsonAndStringsWhateverTheyLookLike)
{
  const std::vector<std::tuple<std::string, std::string, std::string>> cases{{"Test/Value", R"(["a", {"b": -1}])", R"(["a",{"b":-1}])"},
                                                                             {"Test/Number", "-1.5", "-1.5"},
                                                                             {"Test/Half", "[1,", "\"[1,\""},
                                                                             {"list", "run", "\"run\""},
                                                                             {"\"--json\"", "--text", "\"--text\""}};
  for (const auto& [key, value, stored] : cases)
  {
    EXPECT_EQ(tarvik({"call", "ZBMemory.insertData", key, value}).out, "");
    EXPECT_EQ(tarvik({"call", "ZBMemory.getData", key, "--json"}).out, stored + "\n");
  }
}

TEST_F(EndToEnd, refusedCommandTellsWhereToLook)
{
  install();
  const std::string describe = "tarvik describe ZBMemory";
  const std::string noDance = "no behavior \"test/dance\" is installed; \"tarvik list\" shows those that are";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases{{{"call", "Nobody.greet"}, "tarvik services"},
                                                                            {{"describe", "Nobody"}, "tarvik services"},
                                                                            {{"call", "ZBMemory.dance"}, describe},
                                                                            {{"call", "ZBMemory.getData"}, describe},
                                                                            {{"call", "ZBMemory.getData", "1"}, describe},
                                                                            {{"call", "ZBMemory.getData", "Test/Unknown"}, "Test/Unknown"},
                                                                            {{"run", "test/short", "test/dance"}, noDance},
                                                                            {{"start", "test/dance"}, noDance},
                                                                            {{"stop", "test/dance"}, noDance},
                                                                            {{"load", "test/dance"}, noDance},
                                                                            {{"tags", "test/dance"}, noDance},
                                                                            {{"default", "add", "test/dance"}, noDance},
                                                                            {{"start", "test"}, "perhaps \"test/short\" is meant"},
                                                                            {{"token", "remove", "alice"}, "no token of this name"}};
  for (const auto& [arguments, advice] : cases)
  {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const auto result = tarvik(arguments);
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.error, AllOf(MatchesRegex("tarvik: [^\n]*\n"), HasSubstr(advice)));
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
  tarvik({"start", "test/waiting"});
  EXPECT_THAT(tarvik({"history"}).out, AllOf(MatchesRegex("BEHAVIOR +BEGAN +DURATION +END +STARTED BY\ntest/waiting .* running +local\n"
                                                          "test/endless .* stopped by local +local\n(.*\n)*"),
                                             HasSubstr("failed at fail (faulty/behavior.xar:2): no arm"), HasSubstr("ended by itself")));
  EXPECT_THAT(tarvik({"history", "test/unknown"}).out, HasSubstr("no run of \"test/unknown\""));
}

TEST_F(EndToEnd, addressAndTokenFileReachTheHostAndAWrongTokenIsRefused)
{
  const auto url = firstLine(readFile(root + "/run/endpoint"));
  const auto with = [&url](const std::string& tokenFile)
  {
    Process process({TARVIK, "--url", url, "--token-file", tokenFile, "services"});
    const auto result = ended(process);
    return std::pair(result.code, result.error);
  };
  EXPECT_EQ(with(root + "/run/token").first, 0);
  const auto refused = testing::Pair(1, MatchesRegex("tarvik: [^\n]*--token-file[^\n]*\n"));
  const auto alice = writeFile(directory / "alice", "wrong\n").string();
  EXPECT_THAT(with(alice), refused);
  EXPECT_EQ(tarvik({"token", "add", "alice", "--role", "observer", "--expires", "30"}).code, 2);
  const auto token = tarvik({"token", "add", "alice", "--role", "observer", "--expires", "30d"}).out;
  writeFile(alice, token);
  EXPECT_EQ(with(alice).first, 0);
  EXPECT_THAT(tarvik({"token", "list"}).out,
              MatchesRegex("NAME +ROLE +CREATED +EXPIRES +LAST USED\nalice +observer +20[^ ]*Z +20[^ ]*Z +20[^ ]*Z\n"));
  EXPECT_THAT(tarvik({"open"}).out, MatchesRegex(url + "/\\?code=[0-9a-f]+\n"));
  EXPECT_EQ(tarvik({"token", "remove", "alice"}).code, 0);
  EXPECT_THAT(with(alice), refused);
  const auto local = readFile(root + "/run/token");
  EXPECT_EQ(tarvik({"token", "renew"}).code, 0);
  EXPECT_NE(readFile(root + "/run/token"), local);
  EXPECT_EQ(tarvik({"token", "list"}).code, 0) << "with the fresh one";
  EXPECT_EQ(_daemon.error().find(token.substr(0, 16)), std::string::npos) << "no token gets into the log";
}

TEST_F(EndToEnd, programReachesItsOwnHostAndMayThereWhatItsPackageAsksFor)
{
  // A second host, whose own surroundings lead to the first.
  const std::string other = directory / "other";
  Process daemon(
      {TARVIKD, "--root", other, "--listen", "127.0.0.1:0"},
      {{"TARVIK_ROOT", root}, {"TARVIK_URL", firstLine(readFile(root + "/run/endpoint"))}, {"TARVIK_TOKEN_FILE", root + "/run/token"}});
  ASSERT_TRUE(daemon.waitForOutput("\n"));
  const auto there = [&other](std::vector<std::string> arguments)
  {
    arguments.insert(arguments.begin(), {TARVIK, "--root", other});
    Process process(arguments);
    return ended(process);
  };
  const std::string program = std::string("<run command=\"") + TARVIK + " ";
  const auto rights = TestSupport::writePackage(directory / "rights", "rights",
                                                {{"notes", program + "call ZBMemory.insertData Test/Here 1\"/>"},
                                                 {"adds", program + "token add eve --role admin\"/>"},
                                                 {"lists", program + "token list\"/><call service=\"Tokens\" method=\"list\"/>"}});
  writeFile(rights / "manifest.xml", R"(<package uuid="rights"><may call="Tokens.list"/>
    <behavior path="notes"/><behavior path="adds"/><behavior path="lists"/></package>)");
  EXPECT_THAT(there({"package", "check", rights}).out, HasSubstr("\n  may call Tokens.list\n"));
  EXPECT_THAT(there({"package", "install", rights}).out, StartsWith("  may call Tokens.list\nrights installed\n"));
  EXPECT_EQ(there({"run", "rights/notes", "rights/lists"}).code, 0);
  EXPECT_EQ(there({"run", "rights/adds"}).code, 1);
  EXPECT_EQ(there({"call", "ZBMemory.getData", "Test/Here"}).out, "1\n");
  EXPECT_EQ(tarvik({"call", "ZBMemory.getData", "Test/Here"}).code, 1) << "the other host's memory is untouched";
  EXPECT_THAT(there({"token", "list"}).out, HasSubstr("nobody has a token"));
  EXPECT_THAT(TestSupport::namesIn(other + "/run/behaviors"), IsEmpty());
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForEnd(), 0);
  EXPECT_THAT(daemon.error(),
              AllOf(HasSubstr("gateway.call for rights/notes for local: ZBMemory.insertData(\"Test/Here\", 1) from 127.0.0.1:"),
                    HasSubstr("framemanager.call for rights/lists for local: Tokens.list(): ok"),
                    HasSubstr("manifest does not say <may call=\"Tokens.add\"/>")));
}

TEST_F(EndToEnd, rightsAndFaultsAreToldByCheckAndInstallationsOfEitherKind)
{
  writeFile(package / "short" / "behavior.xar", "<project format='1'>\n<fly/></project>");
  const auto checked = tarvik({"package", "check", package});
  EXPECT_EQ(checked.code, 1);
  EXPECT_THAT(checked.out, HasSubstr("\nshort/behavior.xar:2: <fly> is not known"));
  EXPECT_THAT(checked.error, MatchesRegex("tarvik: the package \"test\" has 1 project with a fault[^\n]*\n"));
  const auto installed = tarvik({"package", "install", package, "--json"});
  EXPECT_EQ(installed.code, 0);
  EXPECT_EQ(jsonLines(installed.out).back()["faults"][0]["line"], 2);

  // The same as an archive in the place of what is there.
  EXPECT_EQ(tarvik({"start", "test/endless"}).code, 0);
  auto manifest = readFile(package / "manifest.xml");
  writeFile(package / "manifest.xml", manifest.replace(manifest.find("<behavior"), 0, "<may call='Tokens.*'/>"));
  Process upload({"/usr/bin/python3", "-c", R"(
import io, pathlib, sys, urllib.request, zipfile
root, package, archive = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), io.BytesIO()
with zipfile.ZipFile(archive, "w") as zip:
    for file in package.rglob("*"):
        zip.write(file, file.relative_to(package))
headers = {"Authorization": "Bearer " + (root / "run/token").read_text().strip()}
url = (root / "run/endpoint").read_text().strip() + "/packages"
print(urllib.request.urlopen(urllib.request.Request(url, archive.getvalue(), headers)).read().decode())
)",
                  root, package});
  EXPECT_EQ(upload.waitForEnd(), 0) << upload.error();
  auto answer = Value::parse(upload.output());
  EXPECT_THAT(answer["faults"][0]["text"].get<std::string>(), HasSubstr("<fly> is not known"));
  answer["faults"] = answer["faults"].size();
  EXPECT_EQ(answer, Value::parse(R"({"uuid": "test", "replaced": "1.0", "stopped": ["test/endless"], "may": ["Tokens.*"], "faults": 1})"));
}

TEST_F(EndToEnd, hostWithTlsIsKnownByItsRootAndFromElsewhereByAnAuthority)
{
  const auto certificate = (directory / "host.cert").string();
  const auto key = (directory / "host.key").string();
  const auto secure = (directory / "secure").string();
  const auto begin = [](std::vector<std::string> command) { return std::make_unique<Process>(command); };
  const auto openssl =
      ended(*begin({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "90",
                    "-subj", "/CN=test", "-addext", "subjectAltName=DNS:localhost", "-out", certificate, "-keyout", key}));
  ASSERT_EQ(openssl.code, 0) << openssl.error;
  const auto host = begin({TARVIKD, "--root", secure, "--listen", "127.0.0.1:0", "--tls-cert", certificate, "--tls-key", key});
  ASSERT_TRUE(host->waitForOutput("\n")) << host->error();
  const auto url = firstLine(readFile(secure + "/run/endpoint"));
  EXPECT_THAT(url, StartsWith("https://localhost:"));
  const auto known = ended(*begin({TARVIK, "--root", secure, "services"}));
  EXPECT_EQ(known.code, 0) << known.error;
  TestSupport::writePackage(package, "test", {{"asks", std::string("<run command=\"") + TARVIK + " services\"/>"}});
  EXPECT_EQ(ended(*begin({TARVIK, "--root", secure, "package", "install", package})).code, 0);
  const auto asked = ended(*begin({TARVIK, "--root", secure, "run", "test/asks"}));
  EXPECT_EQ(asked.code, 0) << "programs know the certificate: " << asked.error << host->error();
  std::vector<std::string> fromElsewhere{TARVIK, "services", "--url", url, "--token-file", secure + "/run/token"};
  const auto unknown = ended(*begin(fromElsewhere));
  EXPECT_EQ(unknown.code, 3);
  EXPECT_THAT(unknown.error, HasSubstr("certificate"));
  fromElsewhere.insert(fromElsewhere.end(), {"--ca", certificate});
  EXPECT_EQ(ended(*begin(fromElsewhere)).code, 0);
  host->signal(SIGTERM);
  EXPECT_EQ(host->waitForEnd(), 0);
}

TEST_F(EndToEnd, hostThatVanishesEndsWhoWaitsWith3)
{
  install();
  const auto run = begin({"run", "test/endless"});
  const auto watch = begin({"watch"});
  ASSERT_TRUE(run->waitForOutput("test/endless started"));
  ASSERT_TRUE(watch->waitForError("watching"));
  _daemon.signal(SIGKILL);
  _expectedEnd = 128 + SIGKILL;
  EXPECT_EQ(run->waitForEnd(), 3);
  EXPECT_THAT(run->error(), HasSubstr("connection to the host"));
  EXPECT_EQ(watch->waitForEnd(), 3);
  EXPECT_EQ(tarvik({"list"}).code, 3);
}

} // namespace Tarvik::Test
