#include <cli/commandline.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>

namespace Tarvik
{

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class CommandLine : public testing::Test
{
protected:
  CommandLine()
  {
    std::filesystem::create_directories(root / "run");
    setenv("TARVIK_ROOT", root.c_str(), 1);
  }
  ~CommandLine() override
  {
    unsetenv("TARVIK_ROOT");
    std::filesystem::remove_all(root);
  }

  int run(const std::vector<std::string>& arguments)
  {
    out.str("");
    error.str("");
    return static_cast<int>(runCommandLine(arguments, out, error));
  }

  void write(const std::string& name, const std::string& text) const { std::ofstream(root / "run" / name) << text; }

  /// One line on stderr, nothing on stdout.
  void expectError(const std::string& start, const std::string& advice) const
  {
    EXPECT_THAT(out.str(), IsEmpty());
    EXPECT_THAT(error.str(), AllOf(StartsWith("tarvik: " + start), HasSubstr(advice)));
    EXPECT_EQ(error.str().find('\n'), error.str().size() - 1);
  }

  const std::filesystem::path root = std::filesystem::path(testing::TempDir()) / ("cli-" + std::to_string(getpid()));
  std::ostringstream out;
  std::ostringstream error;
};

TEST_F(CommandLine, wrongUsageExitsWith2AndOneLine)
{
  const std::vector<std::vector<std::string>> cases{{},
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
                                                    {"status", "--url", "http://127.0.0.1:1"},
                                                    {"status", "--token-file", "t"},
                                                    {"--root", "r", "--url", "http://127.0.0.1:1", "--token-file", "t", "status"}};
  for (const auto& arguments : cases)
  {
    SCOPED_TRACE(testing::PrintToString(arguments));
    EXPECT_EQ(run(arguments), 2);
    expectError("", "tarvik --help");
  }
  EXPECT_EQ(run({"call", "getData"}), 2);
  expectError("\"getData\" does not name a method", "SERVICE.METHOD");
}

TEST_F(CommandLine, helpIsASuccess)
{
  EXPECT_EQ(run({"--help"}), 0);
  for (const auto* command : {"status", "list", "run", "start", "stop", "load", "watch", "tags", "default", "package", "services",
                              "describe", "call", "open", "token"})
    EXPECT_THAT(out.str(), HasSubstr("\n  " + std::string(command) + " "));
  EXPECT_THAT(error.str(), IsEmpty());
}

TEST_F(CommandLine, withoutAHostExitsWith3AndTellsHowToStartOne)
{
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"status"}, {"run", "a"}, {"watch"}, {"--json", "list"}, {"package", "list"}})
  {
    SCOPED_TRACE(testing::PrintToString(arguments));
    EXPECT_EQ(run(arguments), 3);
    expectError("no host runs on " + root.string(), "tarvikd --root " + root.string());
  }
}

TEST_F(CommandLine, rootOnTheLineWinsOverTheEnvironment)
{
  EXPECT_EQ(run({"list", "--root", "/nowhere"}), 3);
  expectError("no host runs on /nowhere", "tarvikd --root /nowhere");
}

TEST_F(CommandLine, endpointThatAHostHasLeftBehindExitsWith3)
{
  write("endpoint", "http://127.0.0.1:1\n");
  write("token", "secret\n");
  EXPECT_EQ(run({"status"}), 3);
  expectError("no host reached at http://127.0.0.1:1", "tarvikd");
}

TEST_F(CommandLine, missingTokenExitsWith1AndNamesTheFile)
{
  write("endpoint", "http://127.0.0.1:1\n");
  EXPECT_EQ(run({"status"}), 1);
  expectError("no token can be read from " + (root / "run/token").string(), "--token-file");
}

} // namespace Tarvik
