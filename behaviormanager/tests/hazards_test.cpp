#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// Reports, continuations and package events that come at the worst moment:
/// each is brought there by a stand-in, not by chance.
namespace
{

using Script = StandInFrameManager::Script;

class Hazards : public testing::Test
{
protected:
  Hazards() : package(platform.makePackage("P", TestPlatform::paths({"a", "b"}))), manager(platform.start({package})) {}

  BehaviorState state(const std::string& path = "P/a") { return access.info(path)->state(); }

  /// Runs inside the first emission of a signal of the module.
  void during(const std::string& signal, std::function<void()> action)
  {
    auto first = std::make_shared<std::atomic<bool>>(true);
    platform.broker->session()
        ->find("ZBBehaviorManager")
        ->connect(signal,
                  [first, action](const vu::Value&)
                  {
                    if (first->exchange(false))
                      action();
                  })
        .value();
  }

  TestPlatform platform;
  vu::PackageInfo package;
  ZBBehaviorManager& manager;
  ModuleAccess access{manager};
};

} // namespace

TEST_F(Hazards, AnEndReportedBeforeRunningStopsTheBehaviorAfterItsStart)
{
  platform.frames->script("P/a", Script::EndInPlay);
  platform.frames->during("playBehavior", [this] { platform.settle(); }); // the report has been heard when it returns
  platform.journal.clear();
  manager.startBehavior("P/a");
  EXPECT_EQ(state(), BehaviorState::Stopped);
  EXPECT_EQ(platform.id("P/a"), "");
  EXPECT_THAT(platform.journal.lines("signal "),
              ElementsAre("behaviorLoaded [\"P/a\"]", "behaviorStarted [\"P/a\"]", "behaviorStopped [\"P/a\"]"));
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, AnEndReportedBeforeAFailedPlayStopsTheBehavior)
{
  platform.frames->script("P/a", Script::EndInPlay);
  platform.frames->refuse("playBehavior", "gone", 1);
  platform.frames->during("playBehavior", [this] { platform.settle(); });
  EXPECT_EQ(errorOf([&] { manager.startBehavior("P/a"); }), "startBehavior: behavior P/a has been unexpectedly deleted");
  EXPECT_EQ(state(), BehaviorState::Stopped);
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, ALateReportOfAnOlderInstanceLeavesTheNewerAlone)
{
  for (const bool withRun : {false, true})
  {
    SCOPED_TRACE(withRun);
    vu::Future<void> run;
    if (withRun)
      run = manager.runBehavior("P/a");
    else
      manager.startBehavior("P/a");
    platform.frames->hold();
    manager.stopBehavior("P/a");
    manager.startBehavior("P/a");
    const auto id = platform.id("P/a");
    const auto links = std::pair(access.info("P/a")->behaviorStoppedLink(), access.info("P/a")->behaviorFailedLink());
    EXPECT_EQ(platform.frames->connections(), 4U);
    platform.frames->release();
    platform.settle();
    EXPECT_EQ(state(), BehaviorState::Running);
    EXPECT_EQ(platform.id("P/a"), id);
    EXPECT_THAT(platform.frames->behaviors(), ElementsAre(id));
    EXPECT_EQ(std::pair(access.info("P/a")->behaviorStoppedLink(), access.info("P/a")->behaviorFailedLink()), links);
    EXPECT_EQ(platform.frames->connections(), 2U);
    EXPECT_EQ(withRun ? run.error() : "", "");
    manager.stopBehavior("P/a");
    platform.settle();
    EXPECT_EQ(platform.frames->connections(), 0U);
    EXPECT_EQ(access.info("P/a")->behaviorStoppedLink(), vu::SignalBase::invalidSignalLink);
  }
}

TEST_F(Hazards, StopFollowedByStartLeavesTheNewInstancePlaying)
{
  for (int i = 0; i < 1000; ++i)
  {
    const auto run = i % 2 == 0 ? manager.runBehavior("P/a") : (manager.startBehavior("P/a"), vu::makeReadyFuture<void>());
    manager.stopBehavior("P/a");
    manager.startBehavior("P/a");
    EXPECT_EQ(run.error(), "");
    platform.settle();
    ASSERT_EQ(state(), BehaviorState::Running) << i;
    ASSERT_EQ(platform.frames->behaviors().count(platform.id("P/a")), 1U) << i;
    manager.stopBehavior("P/a");
  }
  platform.settle();
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, ARunWaitsForTheInstanceThatItsOwnStartPlayed)
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
  EXPECT_EQ(state(), BehaviorState::Running);
  EXPECT_EQ(platform.id("P/a"), "fm-2");
}

TEST_F(Hazards, APackageRemovedUnderARunEndsUnknownWithoutAFurtherStop)
{
  const auto run = manager.runBehavior("P/a");
  manager.startBehavior("P/b");
  platform.frames->hold();
  platform.remove(package);
  EXPECT_EQ(state(), BehaviorState::Unknown);
  platform.journal.clear();
  platform.frames->release();
  EXPECT_EQ(run.error(), "");
  platform.settle();
  EXPECT_EQ(state(), BehaviorState::Unknown);
  EXPECT_EQ(state("P/b"), BehaviorState::Unknown);
  EXPECT_THAT(platform.journal.lines("signal "), IsEmpty());
  EXPECT_TRUE(platform.frames->behaviors().empty());
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, AFailedPlayKeepsTwoConnectionsThatTheNextStartUses)
{
  platform.frames->script("P/a", Script::RefuseToPlay);
  for (int i = 0; i < 3; ++i)
  {
    EXPECT_EQ(errorOf([&] { manager.startBehavior("P/a"); }), "startBehavior: behavior P/a has been unexpectedly deleted");
    EXPECT_EQ(state(), BehaviorState::Loaded);
    EXPECT_EQ(platform.frames->connections(), 2U);
  }
  platform.frames->script("P/a", Script::Play);
  manager.startBehavior("P/a");
  EXPECT_EQ(platform.frames->connections(), 2U);
  platform.journal.clear();
  platform.frames->end(platform.id("P/a"), "no arm");
  platform.settle();
  EXPECT_EQ(platform.journal.lines("signal behaviorFailed").size(), 1U);
  EXPECT_EQ(state(), BehaviorState::Stopped);
  EXPECT_EQ(platform.frames->connections(), 0U);

  platform.frames->script("P/b", Script::RefuseToPlay);
  EXPECT_THROW(manager.startBehavior("P/b"), ZBError);
  manager.stopBehavior("P/b");
  platform.settle();
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, AFailureAtTheFirstStepIsAnnouncedBeforeItsStop)
{
  platform.frames->script("P/a", Script::FailInPlay);
  for (int i = 0; i < 1000; ++i)
  {
    platform.journal.clear();
    ASSERT_EQ(manager.runBehavior("P/a").error(), "no arm") << i;
    const auto signals = platform.journal.lines("signal ");
    const auto failed = std::find_if(signals.begin(), signals.end(), [](const auto& line) { return line.starts_with("behaviorFailed"); });
    ASSERT_TRUE(failed != signals.end()) << i;
    ASSERT_TRUE(std::find(failed, signals.end(), "behaviorStopped [\"P/a\"]") != signals.end()) << i;
  }
}

TEST_F(Hazards, AStopReportedWhileTheFailureIsAnnouncedComesBehindIt)
{
  std::latch failureReported(1);
  std::latch announcing(1);
  std::future<void> end;
  platform.frames->during("stopped",
                          [&]
                          {
                            failureReported.count_down();
                            announcing.wait();
                          });
  platform.frames->during("playBehavior",
                          [&]
                          {
                            end = std::async(std::launch::async, [&] { platform.frames->end(platform.id("P/a"), "no arm"); });
                            failureReported.wait();
                            platform.settle();
                          });
  during("behaviorFailed",
         [&]
         {
           announcing.count_down();
           end.get();
           platform.settle();
           EXPECT_THAT(platform.journal.lines("signal behaviorStopped"), IsEmpty());
         });
  manager.startBehavior("P/a");
  EXPECT_EQ(platform.journal.lines("signal ").back(), "behaviorStopped [\"P/a\"]");
}

TEST_F(Hazards, AnEndAStopAndAnotherRunWaitForARunThatHasNotReturned)
{
  const auto run = manager.runBehavior("P/a");
  auto notReturned = std::make_optional<BehaviorRunningLocker>(access.info("P/a"));
  platform.frames->end(platform.id("P/a"), "");
  EXPECT_FALSE(run.wait(100ms));
  auto stop = std::async(std::launch::async, [&] { manager.stopBehavior("P/a"); });
  auto another = std::async(std::launch::async, [&] { return manager.runBehavior("P/a"); });
  EXPECT_EQ(stop.wait_for(100ms), std::future_status::timeout);
  EXPECT_EQ(another.wait_for(100ms), std::future_status::timeout);
  notReturned.reset();
  EXPECT_TRUE(run.wait(10s));
  stop.get();
  const auto second = another.get();
  manager.stopBehavior("P/a");
  EXPECT_TRUE(second.wait(10s));
}

TEST_F(Hazards, RemovalWaitsForAContinuationThatIsUnderWay)
{
  auto pass = access.enter();
  auto removal = std::async(std::launch::async, [&] { platform.stop(); });
  EXPECT_EQ(removal.wait_for(200ms), std::future_status::timeout);
  pass = {};
  EXPECT_EQ(removal.wait_for(10s), std::future_status::ready);
}

TEST_F(Hazards, ARunsUnloadWaitsForTheFailuresAnnouncement)
{
  std::latch announce(1);
  during("behaviorFailed", [&] { announce.wait(); });
  const auto run = manager.runBehavior("P/a");
  platform.journal.clear();
  platform.frames->end(platform.id("P/a"), "no arm");
  EXPECT_FALSE(platform.journal.waitFor("signal behaviorStopped [\"P/a\"]", 100ms));
  announce.count_down();
  EXPECT_EQ(run.error(), "no arm");
}

TEST_F(Hazards, RemovalWaitsForACallbackThatIsUnderWay)
{
  std::latch reached(1);
  std::latch goOn(1);
  during("behaviorFailed",
         [&]
         {
           reached.count_down();
           goOn.wait();
         });
  const auto run = manager.runBehavior("P/a");
  platform.frames->end(platform.id("P/a"), "no arm");
  reached.wait();
  auto removal = std::async(std::launch::async, [&] { platform.stop(); });
  EXPECT_EQ(removal.wait_for(100ms), std::future_status::timeout);
  goOn.count_down();
  EXPECT_EQ(removal.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(run.error(), "no arm");
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, ARunOutlivesTheModuleAndItsFutureCompletes)
{
  const auto run = manager.runBehavior("P/a");
  platform.frames->hold(); // the wait ends only when the module has gone
  platform.stop();
  EXPECT_FALSE(run.isFinished());
  platform.frames->release();
  EXPECT_TRUE(run.wait(10s));
  EXPECT_EQ(run.error(), "");
  platform.settle();
  EXPECT_EQ(platform.frames->connections(), 0U);

  platform.start();
  const auto orphan = platform.manager->runBehavior("P/a");
  platform.broker->removeModule("ZBFrameManager");
  platform.frames = nullptr;
  EXPECT_TRUE(orphan.wait(10s)) << "a future stayed open without a frame manager";
}

TEST_F(Hazards, ALoadDuringAnInstallationLeavesNoForgottenInstance)
{
  const auto other = platform.makePackage("Q", TestPlatform::paths({"x", "y"}));
  // The package is in the catalogue; y's record has not been reset yet.
  during("behaviorStopped",
         [&]
         {
           EXPECT_NO_THROW(manager.startBehavior("Q/y"));
           EXPECT_EQ(platform.frames->behaviors().size(), 1U);
         });
  platform.install(other);
  EXPECT_EQ(state("Q/y"), BehaviorState::Stopped);
  EXPECT_EQ(platform.id("Q/y"), "");
  platform.settle();
  EXPECT_TRUE(platform.frames->behaviors().empty());
  EXPECT_EQ(platform.frames->connections(), 0U);
}

TEST_F(Hazards, ALoadThatResolvedBeforeARemovalLeavesNoInstance)
{
  // The load has resolved the name and waits for the loading lock.
  auto lock = std::make_unique<BehaviorLoadingLocker>(access.info("P/a"));
  std::latch resolved(1);
  auto load = std::async(std::launch::async,
                         [&]
                         {
                           resolved.count_down();
                           return errorOf([&] { manager.startBehavior("P/a"); });
                         });
  resolved.wait();
  load.wait_for(20ms); // it gets to the lock; were it late, it would not find the name: the same outcome
  auto removal = std::async(std::launch::async, [&] { platform.remove(package); });
  while (!access.packageDirectory("P").empty())
    std::this_thread::yield();
  lock.reset();
  removal.get();
  EXPECT_NE(load.get(), "no error");
  EXPECT_EQ(state(), BehaviorState::Unknown);
  EXPECT_TRUE(platform.frames->behaviors().empty());
}

TEST_F(Hazards, AStopThatResolvedBeforeARemovalLeavesTheBehaviorUnknown)
{
  auto lock = std::make_unique<BehaviorLoadingLocker>(access.info("P/a"));
  std::latch resolved(1);
  auto stop = std::async(std::launch::async,
                         [&]
                         {
                           resolved.count_down();
                           return errorOf([&] { manager.stopBehavior("P/a"); });
                         });
  resolved.wait();
  stop.wait_for(20ms); // to the lock; were it late, the name would not resolve: nothing stopped either
  // The removal itself, with the loading lock in other hands: as when it has gone before the stop.
  platform.remove(platform.makePackage("P", TestPlatform::paths({"b"})));
  access.setState("P/a", BehaviorState::Unknown);
  platform.journal.clear();
  lock.reset();
  stop.get();
  EXPECT_EQ(state(), BehaviorState::Unknown);
  EXPECT_THAT(platform.journal.lines("signal "), IsEmpty());
}

TEST_F(Hazards, AReportHeldBackUntilTheModuleHasGoneLeavesNoConnection)
{
  manager.startBehavior("P/a");
  platform.frames->hold();
  manager.stopBehavior("P/a");
  manager.startBehavior("P/a");
  platform.stop();
  EXPECT_EQ(platform.frames->connections(), 0U);
  platform.frames->release();
  platform.settle();
  EXPECT_TRUE(platform.frames->behaviors().empty());
}

TEST_F(Hazards, AFailureInsideThePlayIsAnnouncedBehindTheStart)
{
  platform.frames->script("P/a", Script::FailInPlay);
  platform.frames->during("playBehavior", [this] { platform.settle(); });
  platform.journal.clear();
  manager.startBehavior("P/a");
  EXPECT_THAT(platform.journal.lines("signal "), ElementsAre("behaviorLoaded [\"P/a\"]", "behaviorStarted [\"P/a\"]",
                                                             "behaviorFailed [\"P/a\",\"fm-1\",\"no arm\"]", "behaviorStopped [\"P/a\"]"));
}

TEST_F(Hazards, AStopInsideASignalHandlerOfAnotherHandleIsServed)
{
  const vu::Object client(platform.broker->session()->find("ZBBehaviorManager"));
  std::promise<void> stopped;
  client
      .connect<std::string>("behaviorStarted",
                            [&](const std::string& path)
                            {
                              client.call<void>("stopBehavior", path);
                              stopped.set_value();
                            })
      .value();
  client.call<void>("startBehavior", std::string("P/a"));
  EXPECT_EQ(stopped.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_EQ(state(), BehaviorState::Stopped);
}

TEST_F(Hazards, EmptyBehaviorsStartedByManyClientsAllEndStopped)
{
  platform.frames->script("P/a", Script::EndInPlay);
  platform.frames->script("P/b", Script::EndInPlay);
  std::vector<std::thread> clients;
  for (int client = 0; client < 8; ++client)
    clients.emplace_back(
        [this, client]
        {
          for (int i = 0; i < 250; ++i)
            try
            {
              manager.startBehavior(client % 2 == 0 ? "P/a" : "P/b");
            }
            catch (const ZBError&)
            {
              // Already running, or gone between load and play: both are honest answers.
            }
        });
  for (auto& client : clients)
    client.join();
  platform.settle();
  EXPECT_THAT(manager.getLoadedBehaviors(), IsEmpty());
  EXPECT_TRUE(platform.frames->behaviors().empty());
  EXPECT_EQ(platform.frames->connections(), 0U);
}
