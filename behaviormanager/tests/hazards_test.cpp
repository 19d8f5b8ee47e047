#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

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

  /// Runs inside the first emission of a signal of the module.
  void during(const std::string& signal, std::function<void()> action)
  {
    auto first = std::make_shared<std::atomic<bool>>(true);
    platform.service()
        .backend()
        ->connect(signal,
                  [first, action](const vu::Value&)
                  {
                    if (first->exchange(false))
                      action();
                  })
        .value();
  }
  /// Keeps the first call of a stand-in's method until `goOn`; gives what tells that it has come.
  std::shared_ptr<Event> keepFirst(StandIn& service, const std::string& method, Event& goOn)
  {
    auto come = std::make_shared<Event>();
    auto first = std::make_shared<std::atomic<bool>>(true);
    service.during(method,
                   [come, first, &goOn]
                   {
                     if (!first->exchange(false))
                       return;
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
  platform.frames->during("playBehavior", [this] { platform.settle(); }); // they have been heard when it returns
  platform.frames->script("P/a", Script::EndInPlay);
  manager.startBehavior("P/a");
  EXPECT_THAT(signals(), ElementsAre("behaviorLoaded [\"P/a\"]", "behaviorStarted [\"P/a\"]", "behaviorStopped [\"P/a\"]"));
  expectNothingLeft();

  platform.journal.clear();
  platform.frames->script("P/a", Script::FailInPlay);
  manager.startBehavior("P/a");
  EXPECT_THAT(signals(), ElementsAre("behaviorLoaded [\"P/a\"]", "behaviorStarted [\"P/a\"]",
                                     "behaviorFailed [\"P/a\",\"fm-2\",\"no arm\"]", "behaviorStopped [\"P/a\"]"));

  platform.frames->script("P/a", Script::EndInPlay);
  platform.frames->refuse("playBehavior", "gone");
  EXPECT_EQ(refusal([&] { manager.startBehavior("P/a"); }), "ZBBehaviorManager.startBehavior: behavior P/a has been unexpectedly deleted");
  expectNothingLeft();
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

TEST_F(BehaviorManagerHazards, AgainAndAgainANewInstancePlaysAndAFailureComesBeforeItsStop)
{
  platform.frames->script("P/b", Script::FailInPlay);
  for (int i = 0; i < 500; ++i)
  {
    const auto run = manager.runBehavior("P/a");
    manager.stopBehavior("P/a");
    manager.startBehavior("P/a");
    ASSERT_EQ(run.error(), "");
    ASSERT_EQ(manager.runBehavior("P/b").error(), "no arm");
    platform.settle();
    ASSERT_TRUE(manager.isBehaviorRunning("P/a")) << i;
    ASSERT_THAT(platform.frames->behaviors(), ElementsAre(platform.id("P/a"))) << i;
    const auto told = signals();
    const auto failed = std::find_if(told.begin(), told.end(), [](const auto& line) { return line.starts_with("behaviorFailed"); });
    ASSERT_TRUE(std::find(failed, told.end(), "behaviorStopped [\"P/b\"]") != told.end()) << i;
    platform.journal.clear();
    manager.stopBehavior("P/a");
  }
  expectNothingLeft();
}

TEST_F(BehaviorManagerHazards, ARunWaitsForTheInstanceThatItsOwnStartPlayed)
{
  platform.frames->script("P/a", Script::FailInPlay);
  platform.frames->during("playBehavior", [this] { platform.settle(); });
  // Announced inside the run's start: the record has gone on to another
  // instance by the time the run asks to wait.
  during("behaviorStopped",
         [&]
         {
           platform.frames->script("P/a", Script::Play);
           platform.frames->during("playBehavior", [] {});
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
  during("behaviorStarted", [this] { platform.broker->session()->withdraw("ZBFrameManager"); });
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
  Event failureReported;
  Event announcing;
  std::future<void> end;
  platform.frames->during("stopped",
                          [&]
                          {
                            failureReported.set();
                            EXPECT_TRUE(announcing.wait());
                          });
  platform.frames->during("playBehavior",
                          [&]
                          {
                            end = std::async(std::launch::async, [&] { platform.frames->end(platform.id("P/a"), "no arm"); });
                            EXPECT_TRUE(failureReported.wait());
                            platform.settle();
                          });
  during("behaviorFailed",
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
  during("behaviorFailed", [&] { EXPECT_TRUE(announce.wait()); });
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
  during("behaviorStopped",
         [&]
         {
           const auto waiting = keepFirst(*platform.frames, "_waitForStopped", goOn);
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
  EXPECT_EQ(platform.journal.lines("frames createBehavior").size(), 2U) << "the third run did not wait";
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
  Event reached;
  Event goOn;
  const auto run = manager.runBehavior("P/a");
  std::filesystem::remove(platform.directory / "P/a"); // so that the run's own end stops it, and not the report
  during("behaviorStopped",
         [&]
         {
           reached.set();
           EXPECT_TRUE(goOn.wait());
           platform.journal.add("went on");
         });
  platform.frames->end(platform.id("P/a"));
  EXPECT_TRUE(reached.wait());
  auto removal = std::async(std::launch::async,
                            [&]
                            {
                              platform.stop();
                              platform.journal.add("removed");
                            });
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout); // long for a removal
  goOn.set();
  removal.get();
  EXPECT_THAT(platform.journal.lines(), testing::IsSupersetOf({"went on", "removed"}));
  EXPECT_EQ(platform.journal.lines().back(), "removed");
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
  platform.start();
  const auto orphan = platform.manager->runBehavior("P/a");
  platform.broker->removeModule("ZBFrameManager");
  EXPECT_TRUE(orphan.wait(patience)) << "a future stayed open without a frame manager";
}

TEST_F(BehaviorManagerHazards, AStartDuringAnInstallationStays)
{
  const auto other = platform.makePackage("Q", {"x", "y", "z"});
  // The package is in the catalogue; the records of y and z come later.
  during("behaviorStopped",
         [&]
         {
           manager.startBehavior("Q/y");
           manager.loadBehavior("Q/z");
         });
  platform.install(other);
  platform.settle();
  EXPECT_THAT(signals(), ElementsAre("behaviorStopped [\"Q/x\"]", "behaviorLoaded [\"Q/y\"]", "behaviorStarted [\"Q/y\"]",
                                     "behaviorLoaded [\"Q/z\"]", "behaviorsAdded [[\"Q/x\",\"Q/y\",\"Q/z\"]]"));
  EXPECT_EQ(platform.journal.lines("event ZBBehaviorManager/BehaviorAdded ").size(), 3U);
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
    const auto loading = keepFirst(*platform.frames, "createBehavior", goOn);
    platform.frames->refuse("createBehavior", "broken");
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
  std::vector<std::thread> clients;
  for (int client = 0; client < 8; ++client)
    clients.emplace_back(
        [this, client]
        {
          for (int i = 0; i < 250; ++i)
            // Already running, or gone between load and play, are honest answers.
            refusal([&] { manager.startBehavior(client % 2 == 0 ? "P/a" : "P/b"); });
        });
  for (auto& client : clients)
    client.join();
  expectNothingLeft();
}
