#include "fixture.hpp"

#include <future>

#include <behaviormetrics.hpp>
#include <host/host.hpp>
#include <vu/remotesession.hpp>

using namespace Tarvik;
using HostTest::RootFixture;

class HostInProcess : public RootFixture
{
protected:
  HostInProcess()
  {
    options.root = root;
    options.listen = "127.0.0.1:0";
    options.moduleDirectory = TARVIK_MODULES;
  }

  std::string startFailure()
  {
    Host host(options);
    try
    {
      host.start();
      return "";
    }
    catch (const std::exception& error)
    {
      EXPECT_THROW(host.url(), std::logic_error);
      return error.what();
    }
  }

  Host::Options options;
};

TEST_F(HostInProcess, TellsItsClientsWhereItIsAndTakesItBackAtTheEnd)
{
  Host host(options);
  host.start();
  EXPECT_EQ(read("run/endpoint"), host.url());
  EXPECT_EQ(read("run/token").size(), 64u);
  EXPECT_EQ(mode("run"), 0700u);
  EXPECT_EQ(mode("run/token"), 0600u);
  EXPECT_EQ(mode("run/endpoint"), 0600u);
  EXPECT_TRUE(exists("packages"));
  EXPECT_TRUE(exists("preferences"));
  const auto token = read("run/token");
  {
    vu::RemoteSession session({host.url(), token, std::chrono::milliseconds(10000), {}});
    EXPECT_EQ(session.services(), (std::vector<std::string>{"PackageManager", "RunHistory", "Tokens", "ZBBehaviorManager", "ZBFrameManager",
                                                            "ZBMemory", "ZBPreferences"}));
    const auto events = session.service("ZBMemory").value().call<std::vector<std::string>>("getEventList");
    EXPECT_NE(std::find(events.begin(), events.end(), "TarvikReady"), events.end());
  }
  host.stop();
  EXPECT_FALSE(exists("run/endpoint"));
  EXPECT_FALSE(exists("run/token"));
  host.stop();

  host.start();
  EXPECT_NE(read("run/token"), token) << "a fresh one at every start";
}

TEST_F(HostInProcess, SecondHostOnARootIsRefusedAndHarmsNotTheFirst)
{
  Host host(options);
  host.start();
  const auto token = read("run/token");
  const auto failure = startFailure();
  EXPECT_NE(failure.find("another host runs on the root " + root.string()), std::string::npos) << failure;
  EXPECT_EQ(read("run/token"), token);
  EXPECT_EQ(read("run/endpoint"), host.url());
}

TEST_F(HostInProcess, FailedStartNamesTheFaultAndLeavesNothingBehind)
{
  const auto expectFailure = [this](const std::string& named)
  {
    const auto failure = startFailure();
    EXPECT_NE(failure.find(named), std::string::npos) << failure;
    EXPECT_FALSE(exists("run/endpoint"));
    EXPECT_FALSE(exists("run/token"));
  };
  for (const auto* const place : {"127.0.0.1", "127.0.0.1:", ":7110", "127.0.0.1:70000", "127.0.0.1:x", "::1:80", ""})
  {
    SCOPED_TRACE(place);
    options.listen = place;
    expectFailure("'" + options.listen + "' is no place to listen");
  }
  options.listen = "0.0.0.0:0";
  expectFailure("--insecure");
  options.listen = "127.0.0.1:0";
  options.moduleDirectory = root;
  expectFailure("libmemory.so");
  options.moduleDirectory = TARVIK_MODULES;
  EXPECT_EQ(startFailure(), "");
}

TEST_F(HostInProcess, ModuleThatCannotBeLoadedOrThrowsIsNamedAndTheRestWorks)
{
  const auto noLibrary = root / "libnothing.so";
  std::ofstream(noLibrary) << "nothing";
  options.modules = {"/nonexistent/libguest.so", noLibrary, THROWING_MODULE};
  Host host(options);
  const vu::log::Capture log;
  host.start();
  EXPECT_EQ(log.count(vu::log::Level::Error, "the host goes on without the module library "), options.modules.size());
  for (const auto& file : options.modules)
    EXPECT_EQ(log.count(vu::log::Level::Error, "library " + file.string() + ": "), 1u) << file;
  EXPECT_EQ(log.count(vu::log::Level::Error, "no arm is connected"), 1u);
  vu::RemoteSession session({host.url(), read("run/token"), std::chrono::milliseconds(10000), {}});
  EXPECT_FALSE(session.service("ZBBehaviorManager").value().call<bool>("isBehaviorInstalled", std::string("any")));
}

TEST_F(HostInProcess, TellsOfItsBehaviorsInFigures)
{
  std::ofstream(root / "behavior.xar") << R"(<project format="1" name="t"><fail reason="no arm"/></project>)";
  Host host(options);
  host.start();
  const auto service = [&host](const std::string& name) { return host.broker()->session()->service(name).value(); };
  std::promise<vu::Value> ended;
  service("RunHistory").connect<vu::Value>("runEnded", [&ended](const vu::Value& run) { ended.set_value(run); }).value();
  const auto frames = service("ZBFrameManager");
  frames.call<void>("playBehavior",
                    frames.call<std::string>("createBehavior", root.string(), std::string("behavior.xar"), std::string("t")));
  auto end = ended.get_future();
  ASSERT_EQ(end.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(end.get()["message"], "no arm");
  MetricsText text;
  writeBehaviorMetrics(*host.broker(), text);
  for (const std::string line : {"tarvik_behaviors{state=\"running\"} 0", "tarvik_behavior_starts_total 1",
                                 "tarvik_behavior_ends_total{outcome=\"failed\"} 1", "tarvik_behavior_run_duration_seconds_count 1"})
    EXPECT_NE(text.text().find("\n" + line + "\n"), std::string::npos) << line << " is not in\n" << text.text();
}
