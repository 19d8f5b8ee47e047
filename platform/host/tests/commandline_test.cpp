#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>

#include <host/commandline.hpp>
#include <root/root.hpp>
#include <testing/files.hpp>

using namespace Tarvik;
namespace fs = std::filesystem;

namespace
{

struct Parsed
{
  std::optional<CommandLine> result;
  int exitCode = -1;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<const char*> arguments)
{
  arguments.insert(arguments.begin(), "tarvikd");
  Parsed parsed;
  std::ostringstream out;
  std::ostringstream err;
  parsed.result = parseCommandLine(static_cast<int>(arguments.size()), arguments.data(), out, err, parsed.exitCode);
  parsed.out = out.str();
  parsed.err = err.str();
  return parsed;
}

/// The same with a configuration file.
Parsed parseFile(const std::string& text, std::vector<const char*> arguments = {})
{
  const TestSupport::TemporaryDirectory directory;
  const auto file = TestSupport::writeFile(directory / "config.json", text).string();
  arguments.insert(arguments.end(), {"--config", file.c_str()});
  return parse(arguments);
}

/// Sets a variable of the environment, or takes it out, for a scope.
class Variable
{
public:
  Variable(const char* name, const char* value) : _name(name)
  {
    if (const char* const before = std::getenv(name))
      _before = before;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~Variable() { _before ? ::setenv(_name, _before->c_str(), 1) : ::unsetenv(_name); }

private:
  const char* const _name;
  std::optional<std::string> _before;
};

} // namespace

TEST(CommandLine, TakesEachOptionFromItselfOrElseFromTheFile)
{
  const std::string file = R"({"root": "/r", "listen": "127.0.0.1:0", "system-packages": ["/a", "/b"], "module": ["x.so", "y.so"],
    "module-directory": "/m", "log-level": "debug", "tls-cert": "c", "tls-key": "k", "insecure": true, "framemanager": {"playTimeoutMs": 1}})";
  const std::vector<const char*> line{
      "--root",     "/r",   "--listen",  "127.0.0.1:0", "--system-packages",  "/a", "--system-packages", "/b",
      "--module",   "x.so", "--module",  "y.so",        "--module-directory", "/m", "--log-level",       "debug",
      "--tls-cert", "c",    "--tls-key", "k",           "--insecure"};
  const std::string other = R"({"root": "/o", "listen": "o", "system-packages": ["/o"], "module": ["o.so"], "module-directory": "/o",
    "log-level": "error", "tls-cert": "o", "tls-key": "o", "insecure": false, "framemanager": {"playTimeoutMs": 1}})";
  for (const auto& parsed : {parseFile(file), parseFile(other, line)})
  {
    ASSERT_TRUE(parsed.result) << parsed.err;
    const auto& host = parsed.result->host;
    EXPECT_EQ(host.root, "/r");
    EXPECT_EQ(host.listen, "127.0.0.1:0");
    EXPECT_EQ(host.systemPackages, (std::vector<fs::path>{"/a", "/b"}));
    EXPECT_EQ(host.modules, (std::vector<fs::path>{"x.so", "y.so"}));
    EXPECT_EQ(host.moduleDirectory, "/m");
    EXPECT_EQ(host.tlsCertificate + " " + host.tlsKey, "c k");
    EXPECT_TRUE(host.insecure);
    EXPECT_EQ(host.frameManager, (vu::Value{{"playTimeoutMs", 1}}));
    EXPECT_EQ(parsed.result->logLevel, vu::log::Level::Debug);
  }
  const auto defaults = parse({});
  EXPECT_EQ(defaults.result->host.listen, "127.0.0.1:7110");
  EXPECT_FALSE(defaults.result->host.insecure);
}

TEST(CommandLine, FileSetsLimits)
{
  const auto parsed = parseFile(R"({"limits": {"connections": 7, "connections-per-peer": 3, "header-bytes": 1000, "message-bytes": 2000,
    "upload-bytes": 3000, "open-calls": 4, "links": 5, "queued-messages": 6, "queued-bytes": 4000, "header-seconds": 0.5, "body-seconds": 2,
    "idle-seconds": 3, "send-seconds": 4, "close-seconds": 5, "package-bytes": 8, "package-entries": 9, "runs": 10}})");
  ASSERT_TRUE(parsed.result) << parsed.err;
  const auto& host = parsed.result->host;
  const auto& limits = host.limits;
  EXPECT_EQ((std::vector{limits.connections, limits.connectionsPerPeer, limits.headerBytes, limits.messageBytes, limits.uploadBytes,
                         limits.openCalls, limits.links, limits.queuedMessages, limits.queuedBytes, host.packageBytes, host.packageEntries,
                         host.runs}),
            (std::vector<std::size_t>{7, 3, 1000, 2000, 3000, 4, 5, 6, 4000, 8, 9, 10}));
  const auto seconds = [](double value) { return std::chrono::milliseconds(static_cast<long>(value * 1000)); };
  EXPECT_EQ((std::vector{limits.header, limits.body, limits.idle, limits.send, limits.close}),
            (std::vector{seconds(0.5), seconds(2), seconds(3), seconds(4), seconds(5)}));
}

TEST(CommandLine, RefusesWhatItDoesNotKnowByName)
{
  const std::pair<const char*, const char*> files[] = {{R"({"lisen": "x"})", "lisen"},
                                                       {R"({"module": "m.so"})", "module"},
                                                       {R"({"insecure": 1})", "insecure"},
                                                       {R"({"limits": 1})", "limits"},
                                                       {R"({"limits": {"speed": 1}})", "there is no limit 'speed'"},
                                                       {R"({"limits": {"links": 0}})", "links"},
                                                       {R"({"limits": {"links": -1}})", "links"},
                                                       {R"({"limits": {"links": 1.5}})", "links"},
                                                       {R"({"limits": {"idle-seconds": 0}})", "idle-seconds"},
                                                       {R"({"limits": {"idle-seconds": "1"}})", "idle-seconds"},
                                                       {"[]", "no JSON object"},
                                                       {"{", "no JSON"}};
  for (const auto& [text, named] : files)
  {
    const auto parsed = parseFile(text);
    EXPECT_EQ(parsed.exitCode, 1) << text;
    EXPECT_THAT(parsed.err, testing::HasSubstr(named)) << text;
  }
  for (const auto& arguments :
       std::vector<std::vector<const char*>>{{"--nonsense"}, {"--log-level", "loud"}, {"--config", "/nonexistent.json"}, {"extra"}})
  {
    const auto parsed = parse(arguments);
    EXPECT_EQ(parsed.exitCode, 1);
    EXPECT_THAT(parsed.err, testing::HasSubstr(arguments.back()));
  }
  const auto help = parse({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.out, testing::HasSubstr("--system-packages"));
}

TEST(ResolveRoot, TakesTheFirstThatIsGiven)
{
  const Variable home("HOME", "/home/somebody");
  const Variable root("TARVIK_ROOT", "/from-variable");
  const Variable data("XDG_DATA_HOME", "/data");
  EXPECT_EQ(resolveRoot("/given/"), fs::path("/given/"));
  EXPECT_EQ(resolveRoot("given"), fs::current_path() / "given");
  EXPECT_EQ(resolveRoot(), "/from-variable");
  const Variable noRoot("TARVIK_ROOT", nullptr);
  EXPECT_EQ(resolveRoot(), "/data/tarvik");
  const Variable noData("XDG_DATA_HOME", nullptr);
  EXPECT_EQ(resolveRoot(), "/home/somebody/.local/share/tarvik");
}
