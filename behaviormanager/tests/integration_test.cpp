#include <atomic>
#include <future>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <packagemanager.hpp>
#include <zbframemanager.hpp>
#include <zbmemory.hpp>
#include <zbpreferences.hpp>

#include <behaviormanager/behaviormanager.hpp>
#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <testing/waiting.hpp>

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::IsEmpty;
using TestSupport::errorOf;
using TestSupport::eventually;
using TestSupport::patience;

/// The module among the platform's own modules, with packages on disk.
namespace
{

const std::string longWait = "<wait seconds=\"60\"/>";
const std::string failure = "<fail reason=\"no arm\"/>";

class BehaviorManagerIntegration : public testing::Test
{
protected:
  BehaviorManagerIntegration() : broker(ZBBroker::create({{.threads = 2}, {{"root", root.string()}}}))
  {
    for (const char* directory : {"packages", "preferences", "sources"})
      std::filesystem::create_directories(root / directory);
    broker->createModule<ZBMemory>("ZBMemory");
    broker->createModule<ZBPreferences>("ZBPreferences");
    broker->createModule<PackageManager>("PackageManager");
    broker->createModule<ZBFrameManager>("ZBFrameManager");
  }
  ~BehaviorManagerIntegration() override { broker->shutdown(); }

  ZBBehaviorManager& start() { return broker->createModule<ZBBehaviorManager>("ZBBehaviorManager"); }
  std::string source(const std::string& uuid, const std::map<std::string, std::string>& behaviors)
  {
    return TestSupport::writePackage(root / "sources" / uuid, uuid, behaviors).string();
  }
  void install(const std::string& directory)
  {
    ZBProxy(broker, "PackageManager").call<std::string>("install", directory, std::string("test"));
  }
  std::set<std::string> held() { return ZBProxy(broker, "ZBFrameManager").call<std::set<std::string>>("behaviors"); }
  void settle() { broker->pool()->waitUntilIdle(); }

  const TestSupport::TemporaryDirectory root;
  const std::shared_ptr<ZBBroker> broker;
};

} // namespace

TEST_F(BehaviorManagerIntegration, APackageInstalledDuringConstructionIsInTheCatalogueOnce)
{
  const auto one = source("one", {{"a", ""}});
  const auto two = source("two", {{"b", ""}});
  install(one);
  auto installer = std::async(std::launch::async,
                              [&]
                              {
                                install(two);
                                for (int i = 0; i < 20; ++i)
                                  install(one); // each a removal and an installation
                              });
  auto& manager = start();
  installer.get();
  EXPECT_TRUE(eventually([&] { return manager.getInstalledBehaviors().size() == 2; }));
  settle();
  EXPECT_THAT(manager.getInstalledBehaviors(), testing::UnorderedElementsAre("one/a", "two/b"));
}

TEST_F(BehaviorManagerIntegration, AStormLeavesEverythingConsistentAndStoppable)
{
  // Two are there until they are stopped, two end, two fail, and three stop themselves or each other.
  const auto stop = [](const std::string& name)
  { return "<call service=\"ZBBehaviorManager\" method=\"stopBehavior\" arguments='[\"storm/" + name + "\"]'/>" + longWait; };
  const std::map<std::string, std::string> behaviors{{"long0", longWait},    {"empty0", ""},          {"fail0", failure},
                                                     {"long1", longWait},    {"empty1", ""},          {"fail1", failure},
                                                     {"self", stop("self")}, {"left", stop("right")}, {"right", stop("left")}};
  install(source("storm", behaviors));
  const auto other = source("other", {{"a", ""}});
  auto& manager = start();
  std::atomic<int> unexpected{0};
  // Takes no lock but that of the ids, so that only this one can keep the two apart.
  std::jthread asking(
      [&manager](const std::stop_token& stop)
      {
        while (!stop.stop_requested())
          EXPECT_THROW(manager.getBehaviorRelativePath("nobody"), ZBError);
      });
  std::vector<std::thread> clients;
  for (unsigned client = 0; client < 10; ++client)
    clients.emplace_back(
        [&, client]
        {
          std::mt19937 random(client);
          const std::vector<std::function<void(const std::string&)>> acts{
              [&](const std::string& name) { manager.loadBehavior(name); },
              [&](const std::string& name) { manager.startBehavior(name); },
              [&](const std::string& name) { manager.runBehavior(name); },
              [&](const std::string& name) { manager.stopBehavior(name); },
              [&](const std::string& name) { manager.stopBehavior(name); },
              [&](const std::string& name) { manager.isBehaviorRunning(name), manager.getLoadedBehaviors(); }};
          for (int i = 0; i < 150; ++i)
          {
            const auto text =
                errorOf([&] { acts[random() % acts.size()]("storm/" + std::next(behaviors.begin(), random() % behaviors.size())->first); });
            if (text != "no error" && text.find("already running") == std::string::npos &&
                text.find("unexpectedly deleted") == std::string::npos)
              ++unexpected;
          }
        });
  for (int i = 0; i < 20; ++i)
    install(other); // the list of packages changes under those that resolve names
  for (auto& client : clients)
    client.join();
  asking.request_stop();
  EXPECT_EQ(unexpected, 0);
  EXPECT_TRUE(eventually([&] { return manager.getRunningBehaviors().size() <= 3; }))
      << "what ends, or stops itself or another, stays Running";
  settle();
  std::set<std::string> ids;
  for (const auto& path : manager.getLoadedBehaviors())
    ids.insert(manager.getBehaviorFrameManagerId(path));
  EXPECT_EQ(ids, held());
  manager.stopAllBehaviors();
  for (const auto& path : manager.getLoadedBehaviors())
    manager.stopBehavior(path);
  settle();
  EXPECT_THAT(held(), IsEmpty());
}

TEST_F(BehaviorManagerIntegration, RemovalOfTheModuleUnderAStormLeavesNoInstanceAndNoOpenFuture)
{
  install(source("storm", {{"long", longWait}, {"short", "<wait seconds=\"0.001\"/>"}, {"fail", failure}}));
  const std::vector<std::string> names{"System/storm/long", "storm/short", "storm/fail", "storm/long"};
  for (int round = 0; round < 5; ++round)
  {
    start();
    const vu::Object object(broker->session()->find("ZBBehaviorManager"));
    std::atomic<bool> ended{false};
    TestSupport::Event underWay(100);
    std::vector<std::future<std::vector<vu::Future<void>>>> clients;
    for (std::size_t client = 0; client < 4; ++client)
      clients.push_back(std::async(std::launch::async,
                                   [&, client]
                                   {
                                     std::vector<vu::Future<void>> runs;
                                     for (std::size_t i = 0; !ended && i < 2000; ++i)
                                     {
                                       runs.push_back(object.async<void>("runBehavior", names[(client + i) % names.size()]));
                                       underWay.set();
                                     }
                                     return runs;
                                   }));
    EXPECT_TRUE(underWay.wait());
    broker->removeModule("ZBBehaviorManager");
    ended = true;
    for (auto& client : clients)
      for (const auto& run : client.get())
        ASSERT_TRUE(run.wait(patience));
    settle();
    EXPECT_THAT(held(), IsEmpty());
  }
}
