#include "fixture.hpp"

#include <unistd.h>

#include <gmock/gmock.h>

#include <behaviormetrics.hpp>
#include <vu/objectbuilder.hpp>
#include <zb/callgate.hpp>

using namespace Tarvik;
using namespace HostTest;
namespace fs = std::filesystem;
using HostInProcess = RootFixture;
using testing::HasSubstr;

TEST_F(HostInProcess, TellsItsClientsAloneWhereItIsAndStartsAgain)
{
  Host host(options);
  host.start();
  EXPECT_EQ(line("run/endpoint"), host.url());
  EXPECT_EQ(line("run/token").size(), 64u);
  EXPECT_EQ(mode("run"), 0700u);
  EXPECT_EQ(mode("run/token"), 0600u);
  EXPECT_EQ(mode("run/endpoint"), 0600u);
  const auto token = line("run/token");
  {
    const auto session = connect();
    EXPECT_EQ(session->services(), (std::vector<std::string>{"PackageManager", "RunHistory", "Tokens", "ZBBehaviorManager",
                                                             "ZBFrameManager", "ZBMemory", "ZBPreferences"}));
    EXPECT_THAT(session->service("ZBMemory").value().call<std::vector<std::string>>("getEventList"), testing::Contains("TarvikReady"));
  }
  host.stop();
  host.stop();
  host.start();
  EXPECT_NE(line("run/token"), token) << "a fresh one at every start";
}

TEST_F(HostInProcess, EachRoleMayCallWhatTheProtocolGivesIt)
{
  Host host(options);
  host.start();
  const auto session = host.broker()->session();
  const auto least = [](const std::string& service, const std::string& method)
  {
    const testing::Matcher<std::string> query = testing::MatchesRegex("(get|is|has|resolve)[^a-z].*|packages|package|behaviors");
    const testing::Matcher<std::string> guarded = testing::AnyOf("PackageManager", "ZBPreferences", "ZBMemory", "ZBFrameManager");
    if (service == "Tokens" || method.front() == '_')
      return Role::Admin;
    if (query.Matches(method))
      return Role::Observer;
    return guarded.Matches(service) && method != "readPrefFile" ? Role::Admin : Role::Operator;
  };
  int methods = 0;
  for (const auto& service : session->services())
  {
    const auto object = session->find(service);
    const auto description = object->description();
    for (const auto& known : description.methods)
    {
      const auto& method = known.name;
      const auto may = [&](vu::Role role) { return !ZB::rightsOf(role)({service, method}, object->leastRole(method)); };
      for (const auto role : vu::roles)
        EXPECT_EQ(may(role), role >= least(service, method)) << roleName(role) << " " << service << "." << method;
      ++methods;
    }
  }
  EXPECT_GT(methods, 50);
}

TEST_F(HostInProcess, GivesEverySettingToWhomItIsFor)
{
  options.systemPackages = {"/system"};
  options.frameManager = {{"terminateGraceMs", 77}};
  options.packageBytes = 11;
  options.packageEntries = 22;
  options.runs = 33;
  options.limits.messageBytes = 10;
  Host host(options);
  host.start();
  auto configuration = host.broker()->configuration();
  EXPECT_EQ(configuration, (vu::Value{{"root", root.string()},
                                      {"systemPackages", {"/system"}},
                                      {"url", host.url()},
                                      {"packageLimits", {{"bytes", 11}, {"entries", 22}}},
                                      {"history", {{"runs", 33}}},
                                      {"framemanager", {{"terminateGraceMs", 77}}}}));
  EXPECT_THROW(connect()->services(), vu::ServiceError) << "the request is longer than ten bytes";
}

TEST_F(HostInProcess, FailedStartNamesTheFaultAndLeavesNothingBehind)
{
  const auto failure = [this]
  {
    Host host(options);
    const auto text = errorOf([&host] { host.start(); });
    EXPECT_THROW(host.url(), std::logic_error);
    EXPECT_FALSE(exists("run/endpoint"));
    EXPECT_FALSE(exists("run/token"));
    return text;
  };
  for (const auto* const place : {"127.0.0.1", "127.0.0.1:", ":7110", "127.0.0.1:70000", "127.0.0.1:x", "::1:80", ""})
  {
    options.listen = place;
    EXPECT_THAT(failure(), HasSubstr("'" + options.listen + "' is no place to listen"));
  }
  options.listen = "0.0.0.0:0";
  EXPECT_THAT(failure(), HasSubstr("--insecure"));
  options.listen = "[::1]:0";
  options.tlsCertificate = "/host.cert";
  EXPECT_THAT(failure(), HasSubstr("both a certificate and a key"));
  options.tlsKey = "/host.key";
  EXPECT_THAT(failure(), HasSubstr("/host.cert"));
  options.tlsCertificate = options.tlsKey = "";
  options.listen = "0.0.0.0:0";
  options.insecure = true;
  options.moduleDirectory = root;
  EXPECT_THAT(failure(), HasSubstr("libmemory.so"));
  options.listen = "[::1]:0";
  options.moduleDirectory = TARVIK_MODULES;
  Host host(options);
  host.start();
  EXPECT_TRUE(host.url().starts_with("http://[::1]:"));
}

TEST_F(HostInProcess, WhatOthersCouldChangeIsRefusedByName)
{
  {
    Host host(options);
    host.start();
    connect()->call("Tokens.add", {"alice", "observer"}).value();
  }
  const auto start = [this] { return errorOf([this] { Host(options).start(); }); };
  for (const auto* const name : {".", "packages", "preferences", "run", "tokens"})
    for (const auto access : {fs::perms::group_write, fs::perms::others_write})
    {
      const auto file = (root / name).lexically_normal();
      const auto mode = fs::status(file).permissions();
      fs::permissions(file, mode | access);
      const auto text = start();
      EXPECT_THAT(text, HasSubstr("\"chmod go-w " + root.string())) << name;
      EXPECT_THAT(text, HasSubstr(std::string(name) == "." ? "" : name));
      fs::permissions(file, mode);
    }
  if (::geteuid() == 0) // nobody else may give files away
    for (const auto* const name : {"tokens", "."})
    {
      ASSERT_EQ(::chown((root / name).c_str(), 12345, 12345), 0);
      EXPECT_THAT(start(), HasSubstr("belongs to another account (user 12345)"));
      ASSERT_EQ(::chown((root / name).c_str(), 0, 0), 0);
    }
  Host host(options);
  host.start();
}

TEST_F(HostInProcess, ModuleThatCannotBeLoadedOrThrowsIsNamedAndTheRestWorks)
{
  const auto noLibrary = writeFile(root / "libnothing.so", "nothing");
  options.modules = {"/nonexistent/libguest.so", noLibrary, THROWING_MODULE};
  Host host(options);
  const vu::log::Capture log;
  host.start();
  EXPECT_EQ(log.count(vu::log::Level::Error, "the host goes on without the module library "), options.modules.size());
  for (const auto& file : options.modules)
    EXPECT_EQ(log.count(vu::log::Level::Error, "library " + file.string() + ": "), 1u) << file;
  EXPECT_EQ(log.count(vu::log::Level::Error, "no arm is connected"), 1u);
  EXPECT_FALSE(connect()->service("ZBBehaviorManager").value().call<bool>("isBehaviorInstalled", std::string("any")));
}

TEST_F(HostInProcess, TellsOfItsBehaviorsInFigures)
{
  Host host(options);
  host.start();
  EXPECT_EQ(play("<fail reason=\"no arm\"/>", "runEnded")["message"], "no arm");
  MetricsText text;
  writeBehaviorMetrics(*host.broker(), text);
  writeLogMetrics(*host.broker(), text);
  for (const std::string figure :
       {"tarvik_behaviors{state=\"running\"} 0", "tarvik_behavior_starts_total 1", "tarvik_behavior_ends_total{outcome=\"failed\"} 1",
        "tarvik_behavior_run_duration_seconds_count 1", "tarvik_log_lines_dropped_total 0", "tarvik_behavior_lines_dropped_total 0"})
    EXPECT_THAT(text.text(), HasSubstr("\n" + figure + "\n"));
}

TEST_F(HostInProcess, AnswersTheWatchdogWithAndWithoutBehaviorsThatPlay)
{
  Host host(options);
  EXPECT_THROW(host.probe([] {}), std::logic_error);
  host.start();
  TestSupport::Event answered(2);
  host.probe([&answered] { answered.set(); });
  play("<wait seconds=\"1000\"/>", "runBegan");
  host.probe([&answered] { answered.set(); });
  EXPECT_TRUE(answered.wait());
}
