#include <cli/commandline.hpp>

#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>

#include <testing/files.hpp>
#include <testing/standinhost.hpp>

namespace Tarvik
{

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Arguments = std::vector<std::string>;

class CommandLine : public testing::Test
{
protected:
  CommandLine() { setenv("TARVIK_ROOT", root.string().c_str(), 1); }
  ~CommandLine() override { unsetenv("TARVIK_ROOT"); }

  int run(const Arguments& arguments)
  {
    out.str("");
    error.str("");
    return static_cast<int>(runCommandLine(arguments, out, error));
  }

  /// One line on stderr, nothing on stdout.
  void expectError(const Arguments& arguments, int code, const std::string& start, const std::string& advice)
  {
    SCOPED_TRACE(testing::PrintToString(arguments));
    EXPECT_EQ(run(arguments), code);
    EXPECT_THAT(out.str(), IsEmpty());
    EXPECT_THAT(error.str(), AllOf(StartsWith("tarvik: " + start), HasSubstr(advice)));
    EXPECT_EQ(error.str().find('\n'), error.str().size() - 1);
  }

  const TestSupport::TemporaryDirectory root;
  std::ostringstream out;
  std::ostringstream error;
};

TEST_F(CommandLine, wrongUsageExitsWith2AndOneLine)
{
  const std::vector<Arguments> cases{{},
                                     {"dance"},
                                     {"run"},
                                     {"start"},
                                     {"start", "a", "b"},
                                     {"stop"},
                                     {"stop", "a", "--all"},
                                     {"package"},
                                     {"package", "install"},
                                     {"default", "add"},
                                     {"describe"},
                                     {"token", "add", "alice"},
                                     {"token", "remove"},
                                     {"call"},
                                     {"list", "--loud"},
                                     {"history", "--limit", "0"},
                                     {"status", "--url", "http://127.0.0.1:1"},
                                     {"status", "--token-file", "t"},
                                     {"--root", "r", "--url", "http://127.0.0.1:1", "--token-file", "t", "status"}};
  for (const auto& arguments : cases)
    expectError(arguments, 2, "", "tarvik --help");
  for (const std::string method : {"getData", ".getData", "ZBMemory."})
    expectError({"call", method}, 2, "\"" + method + "\" does not name a method", "SERVICE.METHOD");
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_THAT(error.str(), IsEmpty());
}

TEST_F(CommandLine, withoutAHostExitsWith3AndTellsHowToStartOne)
{
  for (const auto& arguments : std::vector<Arguments>{{"status"}, {"run", "a"}, {"watch"}, {"--json", "list"}, {"package", "list"}})
    expectError(arguments, 3, "no host runs on " + root.string(), "tarvikd --root " + root.string());
  expectError({"list", "--root", "/nowhere"}, 3, "no host runs on /nowhere", "tarvikd --root /nowhere");
  TestSupport::writeFile(root / "run" / "endpoint", "http://127.0.0.1:1\n");
  expectError({"status"}, 1, "no token can be read from " + (root / "run/token").string(), "--token-file");
  TestSupport::writeFile(root / "run" / "token", "secret\n");
  expectError({"status"}, 3, "no host reached at http://127.0.0.1:1", "tarvikd");
}

TEST_F(CommandLine, environmentOfAProgramGoesBeforeTheRootAndComesWhole)
{
  const auto file = TestSupport::writeFile(root / "secret", "secret").string();
  const auto with = [](const char* url, const std::string& tokenFile)
  {
    setenv("TARVIK_URL", url, 1);
    setenv("TARVIK_TOKEN_FILE", tokenFile.c_str(), 1);
  };
  with("http://127.0.0.1:1", file);
  expectError({"status"}, 3, "no host reached at http://127.0.0.1:1", "tarvikd");
  expectError({"status", "--root", root.string()}, 3, "no host runs on " + root.string(), "");
  with("http://127.0.0.1:1", "");
  expectError({"status"}, 2, "the environment has TARVIK_URL, but no TARVIK_TOKEN_FILE", "--root or --url");
  with("", file);
  expectError({"status"}, 2, "the environment has TARVIK_TOKEN_FILE, but no TARVIK_URL", "--root or --url");
  with("robot", file);
  expectError({"status"}, 2, "'robot' is no host's address", "http://ADDRESS:PORT");
  unsetenv("TARVIK_URL");
  unsetenv("TARVIK_TOKEN_FILE");
}

TEST_F(CommandLine, asksForAllThatItNeedsAtOnce)
{
  const std::string manager = "ZBBehaviorManager.";
  const std::vector<std::pair<Arguments, Arguments>> cases{
      {{"call", "ZBMemory.getData", "k"}, {"ZBMemory.getData"}},
      {{"token", "list"}, {"Tokens.list"}},
      {{"start", "test/a"}, {manager + "resolveBehaviorName", manager + "startBehavior"}},
      {{"stop", "test/a"}, {manager + "resolveBehaviorName", manager + "stopBehavior", "session.connect"}},
      {{"status"},
       {"PackageManager.packages", manager + "getInstalledBehaviors", manager + "getLoadedBehaviors", manager + "getRunningBehaviors",
        "session.services"}}};
  for (const auto& [arguments, calls] : cases)
  {
    SCOPED_TRACE(arguments.front());
    const auto result = [](const std::string& method, const vu::Value& params) {
      return method == "session.connect" ? vu::Value(1) : params.empty() ? vu::Value::array() : params[0];
    };
    const TestSupport::StandInHost host(result, calls.size());
    TestSupport::writeFile(root / "run" / "endpoint", host.url());
    TestSupport::writeFile(root / "run" / "token", "secret");
    EXPECT_EQ(run(arguments), 0) << error.str();
    EXPECT_EQ(host.rounds(), std::vector<Arguments>(1, calls));
  }
}

TEST_F(CommandLine, stoppingGoesOnWhenOneIsRefusedAndNamesWhatIsLeft)
{
  int lists = 0;
  TestSupport::StandInHost* self = nullptr;
  const auto result = [&](const std::string& method, const vu::Value& params) -> vu::Value
  {
    if (method.ends_with("getRunningBehaviors"))
      return lists++ == 0 ? vu::Value{"p/a", "p/b", "p/c"} : vu::Value{"p/b"};
    if (method.ends_with("stopBehavior") && params[0] == "p/c")
      self->emit({"fm-3", "p/c", "stopped", "", "deaf cannot be ended", "local"});
    return method.ends_with("resolveBehaviorName") ? params[0] : vu::Value(1);
  };
  TestSupport::StandInHost host(result);
  self = &host;
  TestSupport::writeFile(root / "run" / "endpoint", host.url());
  TestSupport::writeFile(root / "run" / "token", "secret");
  expectError({"stop", "--all"}, 1, "not everything is stopped: \"p/b\" was started meanwhile, \"p/c\": deaf cannot be ended", "");
  std::size_t stops = 0;
  for (const auto& round : host.rounds())
    stops += round == Arguments{"ZBBehaviorManager.stopBehavior"};
  EXPECT_EQ(stops, 3U);
  expectError({"stop", "p/c"}, 1, "\"p/c\" is not stopped: deaf cannot be ended", "");
  EXPECT_EQ(run({"stop", "p/a"}), 0) << error.str();
}

} // namespace Tarvik
