#include <algorithm>
#include <future>
#include <thread>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"
#include <testing/waiting.hpp>

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Event;
using TestSupport::patience;

/// Reports, continuations and package events that come at the worst moment:
/// each is brought there by a stand-in, not by chance.
namespace
{

using Script = StandInFrameManager::Script;

class BehaviorManagerHazards : public testing::Test
{
protected:
  BehaviorManagerHazards() : package(platform.makePackage("P", {"a", "b"})), manager(platform.start({package})) {}

  /// Keeps the next call or emission until `goOn`; gives what tells that it has come.
  static std::shared_ptr<Event> keepNext(Interruptions& where, const std::string& call, Event& goOn)
  {
    auto come = std::make_shared<Event>();
    where.during(call,
                 [come, &goOn]
                 {
                   come->set();
                   EXPECT_TRUE(goOn.wait());
                 });
    return come;
  }
  vu::Future<void> post(const std::string& method, const std::string& behavior) { return platform.service().async<void>(method, behavior); }
  std::vector<std::string> signals() { return platform.journal.lines("signal "); }
  void expectNothingLeft()
  {
    platform.settle();
    EXPECT_THAT(manager.getLoadedBehaviors(), IsEmpty());
    EXPECT_THAT(platform.frames->behaviors(), IsEmpty());
    EXPECT_EQ(platform.frames->connections(), 0U);
  }

  TestPlatform platform{{.threads = 1}};
  vu::PackageInfo package;
  ZBBehaviorManager& manager;
};

} // namespace

TEST_F(BehaviorManagerHazards, ReportsThatComeInsideThePlayAreToldBehindTheStart)
{
  const std::string loaded = "behaviorLoaded [\"P/a\"]";
  const std::string started = "behaviorStarted [\"P/a\"]";
  const std::string stopped = "behaviorStopped [\"P/a\"]";
  const std::string failed = "behaviorFailed [\"P/a\",\"fm-2\",\"no arm\"]";
  const std::string gone = "ZBBehaviorManager.startBehavior: behavior P/a has been unexpectedly deleted";
  for (const auto& [script, refused, told] :
       std::vector<std::tuple<Script, bool, std::vector<std::string>>>{{Script::EndInPlay, false, {loaded, started, stopped}},
                                                                       {Script::FailInPlay, false, {loaded, started, failed, stopped}},
                                                                       {Script::EndInPlay, true, {loaded, stopped}}})
  {
    platform.frames->during("played",
                            [this, refused = refused]
                            {
                              platform.settle(); // they have been heard when it returns
                              if (refused)
                                throw ZBError("ZBFrameManager", "playBehavior", "gone");
                            });
    platform.frames->script("P/a", script);
    EXPECT_EQ(refusal([&] { manager.startBehavior("P/a"); }), refused ? gone : "no error");
    EXPECT_EQ(signals(), told);
    expectNothingLeft();
    platform.journal.clear();
  }
}

TEST_F(BehaviorManagerHazards, ALateReportOfAnOlderInstanceLeavesTheNewerAlone)
{
  for (const bool withRun : {false, true})
  {
    SCOPED_TRACE(withRun);
    const auto run = withRun ? manager.runBehavior("P/a") : (manager.startBehavior("P/a"), vu::makeReadyFuture<void>());
    platform.frames->hold();
    manager.stopBehavior("P/a");
    manager.startBehavior("P/a");
    const auto id = platform.id("P/a");
    EXPECT_EQ(platform.frames->connections(), 4U);
    platform.frames->release();
    platform.settle();
    EXPECT_TRUE(manager.isBehaviorRunning("P/a"));
    EXPECT_EQ(platform.id("P/a"), id);
    EXPECT_THAT(platform.frames->behaviors(), ElementsAre(id));
    EXPECT_EQ(platform.frames->connections(), 2U);
    EXPECT_EQ(run.error(), "");
    manager.stopBehavior("P/a");
    expectNothingLeft();
  }
}

TEST_F(BehaviorManagerHazards, ARunWaitsForTheInstanceThatItsOwnStartPlayed)
{
  platform.frames->script("P/a", Script::FailInPlay);
  platform.frames->during("played", [this] { platform.settle(); });
  // Announced inside the run's start: the record has gone on to another
  // instance by the time the run asks to wait.
  platform.during("behaviorStopped",
                  [&]
                  {
                    platform.frames->script("P/a", Script::Play);
                    manager.startBehavior("P/a");
                  });
  EXPECT_EQ(manager.runBehavior("P/a").error(), "no arm");
  EXPECT_TRUE(manager.isBehaviorRunning("P/a"));
  EXPECT_EQ(platform.id("P/a"), "fm-2");
}

TEST_F(BehaviorManagerHazards, ARunNeedsNoPlaceInThePoolToWait)
{
  TestPlatform full({.threads = 1, .maximum = 1, .queue = 0});
  auto& busy = full.start({full.makePackage("P", {"a"})});
  Event release;
  full.broker->pool()->post([&] { EXPECT_TRUE(release.wait()); });
  ASSERT_TRUE(TestSupport::eventually(
      [&] { return refusal([&] { full.service().async<vu::Value>("getTagList"); }).find("overloaded") != std::string::npos; }));
  const auto run = busy.runBehavior("P/a");
  EXPECT_TRUE(busy.isBehaviorRunning("P/a"));
  release.set();
  full.frames->end(full.id("P/a"), "no arm");
  EXPECT_EQ(run.error(), "no arm");
}

TEST_F(BehaviorManagerHazards, ARunThatCannotWaitLeavesNothingPlaying)
{
  // Gone from the directory, so that there is nothing to wait at, but held by the module.
  platform.during("behaviorStarted", [this] { platform.broker->session()->withdraw("ZBFrameManager"); });
  EXPECT_THROW(manager.runBehavior("P/a"), std::runtime_error);
  EXPECT_FALSE(manager.isBehaviorLoaded("P/a"));
  EXPECT_EQ(platform.id("P/a"), "");
}

TEST_F(BehaviorManagerHazards, AnInstanceThatWasGoneBeforeItsStartLeavesNoConnection)
{
  for (int i = 0; i < 3; ++i)
  {
    manager.loadBehavior("P/a");
    platform.frames->end(platform.id("P/a"));
    EXPECT_THROW(manager.startBehavior("P/a"), ZBError);
    manager.stopBehavior("P/a");
    expectNothingLeft();
  }
  // But reports that are on their way are heard before.
  manager.startBehavior("P/a");
  platform.frames->hold();
  platform.frames->end(platform.id("P/a"), "no arm");
  manager.stopBehavior("P/a");
  platform.settle();
  platform.frames->release();
  expectNothingLeft();
  EXPECT_EQ(platform.journal.lines("signal behaviorFailed").size(), 1U);
}

TEST_F(BehaviorManagerHazards, AStopReportedWhileTheFailureIsAnnouncedComesBehindIt)
{
  Event announcing;
  std::future<void> end;
  const auto failureReported = keepNext(*platform.frames, "stopped", announcing);
  platform.frames->during("played",
                          [&]
                          {
                            end = std::async(std::launch::async, [&] { platform.frames->end(platform.id("P/a"), "no arm"); });
                            EXPECT_TRUE(failureReported->wait());
                            platform.settle();
                          });
  platform.during("behaviorFailed",
                  [&]
                  {
                    announcing.set();
                    end.get();
                    platform.settle();
                    EXPECT_THAT(platform.journal.lines("signal behaviorStopped"), IsEmpty());
                  });
  manager.startBehavior("P/a");
  EXPECT_EQ(signals().back(), "behaviorStopped [\"P/a\"]");
}

TEST_F(BehaviorManagerHazards, ARunsUnloadWaitsForTheFailuresAnnouncement)
{
  Event announce;
  platform.during("behaviorFailed", [&] { EXPECT_TRUE(announce.wait()); });
  const auto run = manager.runBehavior("P/a");
  platform.frames->end(platform.id("P/a"), "no arm");
  platform.passPosted();
  platform.passPosted(); // the end of the wait, and what it posts
  EXPECT_THAT(platform.journal.lines("signal behaviorStopped"), IsEmpty());
  announce.set();
  EXPECT_EQ(run.error(), "no arm");
}

TEST_F(BehaviorManagerHazards, AnEndAStopAndAnotherRunWaitForARunThatHasNotReturned)
{
  const auto first = manager.runBehavior("P/a");
  Event goOn;
  std::future<vu::Future<void>> second;
  // Announced before the first run goes on: by then the second is between its start and its return.
  platform.during("behaviorStopped",
                  [&]
                  {
                    const auto waiting = keepNext(*platform.frames, "_waitForStopped", goOn);
                    second = std::async(std::launch::async, [&] { return manager.runBehavior("P/a"); });
                    EXPECT_TRUE(waiting->wait());
                  });
  platform.frames->end(platform.id("P/a"));
  platform.passPosted();
  platform.passPosted();
  platform.passPosted(); // the report, the end of the wait, what goes on behind both
  EXPECT_FALSE(first.isFinished());
  const auto stop = post("stopBehavior", "P/a");
  const auto third = post("runBehavior", "P/a");
  platform.passPosted();
  EXPECT_FALSE(stop.isFinished());
  EXPECT_FALSE(third.isFinished());
  EXPECT_EQ(platform.journal.lines("createBehavior").size(), 2U) << "the third run did not wait";
  goOn.set();
  EXPECT_TRUE(first.wait(patience));
  EXPECT_TRUE(second.get().wait(patience));
  EXPECT_TRUE(stop.wait(patience));
  EXPECT_TRUE(TestSupport::eventually([&] { return manager.isBehaviorRunning("P/a"); }));
  manager.stopBehavior("P/a");
  EXPECT_TRUE(third.wait(patience));
}

TEST_F(BehaviorManagerHazards, RemovalWaitsForAContinuationThatIsUnderWay)
{
  Event goOn;
  const auto run = manager.runBehavior("P/a");
  std::filesystem::remove(platform.directory / "P/a"); // so that the run's own end stops it, and not the report
  const auto reached = keepNext(platform, "behaviorStopped", goOn);
  platform.frames->end(platform.id("P/a"));
  EXPECT_TRUE(reached->wait());
  auto removal = std::async(std::launch::async, [&] { platform.stop(); });
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout); // long for a removal
  goOn.set();
  removal.get();
  EXPECT_EQ(run.error(), "");
}

TEST_F(BehaviorManagerHazards, ARunOutlivesTheModuleAndItsFutureCompletes)
{
  const auto run = manager.runBehavior("P/a");
  platform.frames->hold(); // the wait ends only when the module has gone
  manager.startBehavior("P/b");
  platform.stop();
  EXPECT_EQ(platform.frames->connections(), 0U) << "a report that is held back keeps its connection";
  EXPECT_FALSE(run.isFinished());
  platform.frames->release();
  EXPECT_TRUE(run.wait(patience));
  EXPECT_EQ(run.error(), "");

  platform.settle();
  auto& next = platform.start();
  const auto orphan = next.runBehavior("P/a");
  platform.broker->removeModule("ZBFrameManager");
  EXPECT_TRUE(orphan.wait(patience)) << "a future stayed open without a frame manager";
  EXPECT_NO_THROW(next.stopBehavior("P/a"));
  EXPECT_THROW(next.startBehavior("P/a"), ZBError);
  EXPECT_THAT(next.getLoadedBehaviors(), IsEmpty());
}

TEST_F(BehaviorManagerHazards, AStartDuringAnInstallationStays)
{
  const auto other = platform.makePackage("Q", {"x", "y", "z"});
  // The package is in the catalogue; the records of y and z come later.
  platform.during("behaviorStopped",
                  [&]
                  {
                    manager.startBehavior("Q/y");
                    manager.loadBehavior("Q/z");
                  });
  platform.install(other);
  platform.settle();
  EXPECT_THAT(signals(), ElementsAre("behaviorStopped [\"Q/x\"]", "behaviorLoaded [\"Q/y\"]", "behaviorStarted [\"Q/y\"]",
                                     "behaviorLoaded [\"Q/z\"]", "behaviorsAdded [[\"Q/x\",\"Q/y\",\"Q/z\"]]"));
  EXPECT_EQ(platform.journal.lines("raiseMicroEvent [\"ZBBehaviorManager/BehaviorAdded\"").size(), 3U);
  EXPECT_THAT(manager.getRunningBehaviors(), ElementsAre("Q/y"));
  EXPECT_THAT(platform.frames->behaviors(), ElementsAre(platform.id("Q/y"), platform.id("Q/z")));
}

TEST_F(BehaviorManagerHazards, WhatARemovalLeftBehindIsResetByTheNextInstallation)
{
  manager.startBehavior("P/a");
  manager.startBehavior("P/b");
  platform.remove(platform.makePackage("P", {"a"}));
  EXPECT_THAT(manager.getRunningBehaviors(), ElementsAre("P/b"));
  platform.journal.clear();
  platform.install(package); // in the same directory
  EXPECT_EQ(platform.id("P/b"), "");
  EXPECT_THAT(signals(), ElementsAre("behaviorStopped [\"P/a\"]", "behaviorStopped [\"P/b\"]", "behaviorsAdded [[\"P/a\",\"P/b\"]]"));
  expectNothingLeft();
}

TEST_F(BehaviorManagerHazards, WhoResolvedBeforeARemovalFindsNothingBehindIt)
{
  const auto listingLess = platform.makePackage("P", {"b"}); // so that the removal does not wait for the lock of a
  for (const auto& [method, error] :
       std::vector<std::pair<std::string, std::string>>{{"stopBehavior", ""},
                                                        {"preloadBehavior", "behavior P/a is not installed."},
                                                        {"startBehavior", "behavior P/a failed to load: behavior P/a is not installed."}})
  {
    SCOPED_TRACE(method);
    Event goOn;
    const auto loading = keepNext(*platform.frames, "createBehavior", goOn);
    platform.frames->refuse("createBehavior " + package.path(), "broken");
    const auto first = post("preloadBehavior", "P/a");
    EXPECT_TRUE(loading->wait());
    const auto late = post(method, "P/a");
    platform.passPosted(); // it has resolved the name and waits for the lock
    platform.remove(listingLess);
    platform.journal.clear();
    goOn.set();
    EXPECT_EQ(first.error(), "broken");
    EXPECT_EQ(late.error(), error);
    EXPECT_THAT(platform.journal.lines(), IsEmpty());
    platform.install(package);
  }
}

TEST_F(BehaviorManagerHazards, EmptyBehaviorsStartedByManyClientsAllEndStopped)
{
  platform.frames->script("P/a", Script::EndInPlay);
  platform.frames->script("P/b", Script::EndInPlay);
  {
    std::vector<std::jthread> clients;
    for (const char* name : {"P/a", "P/b", "P/a", "P/b", "P/a", "P/b", "P/a", "P/b"})
      clients.emplace_back(
          [this, name]
          {
            for (int i = 0; i < 250; ++i)
              refusal([&] { manager.startBehavior(name); }); // already running, or gone between load and play, are honest answers
          });
  }
  expectNothingLeft();
}
