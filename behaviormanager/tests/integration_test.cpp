#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <packagemanager.hpp>
#include <zbframemanager.hpp>
#include <zbmemory.hpp>
#include <zbpreferences.hpp>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// The module among the platform's own modules, with packages on disk.
namespace
{

class Integration : public testing::Test
{
protected:
  Integration()
  {
    auto pattern = (std::filesystem::temp_directory_path() / "integration-XXXXXX").string();
    root = mkdtemp(pattern.data());
    for (const char* directory : {"packages", "preferences", "sources"})
      std::filesystem::create_directories(root / directory);
    ZBBroker::Options options;
    options.pool.threads = 2;
    options.configuration = {{"root", root.string()}};
    broker = ZBBroker::create(options);
    broker->createModule<ZBMemory>("ZBMemory");
    broker->createModule<ZBPreferences>("ZBPreferences");
    broker->createModule<PackageManager>("PackageManager");
    broker->createModule<ZBFrameManager>("ZBFrameManager");
  }

  ~Integration() override
  {
    broker->shutdown();
    std::filesystem::remove_all(root);
  }

  ZBBehaviorManager& start() { return broker->createModule<ZBBehaviorManager>("ZBBehaviorManager"); }

  /// A package whose behaviors are given by path and steps.
  std::string source(const std::string& uuid, const std::vector<std::pair<std::string, std::string>>& behaviors)
  {
    const auto directory = root / "sources" / uuid;
    std::filesystem::create_directories(directory);
    std::ofstream manifest(directory / "manifest.xml");
    manifest << "<package uuid=\"" << uuid << "\">";
    for (const auto& [path, steps] : behaviors)
    {
      manifest << "<behavior path=\"" << path << "\"/>";
      std::filesystem::create_directories(directory / path);
      std::ofstream(directory / path / "behavior.xar") << "<project format=\"1\" name=\"" << path << "\">" << steps << "</project>";
    }
    manifest << "</package>";
    return directory.string();
  }

  static std::string call(const std::string& method, const std::string& behavior)
  {
    return "<call service=\"ZBBehaviorManager\" method=\"" + method + "\" arguments='[\"" + behavior + "\"]'/>";
  }

  void install(const std::string& directory)
  {
    ZBProxy(broker, "PackageManager").call<std::string>("install", directory, std::string("test"));
  }

  /// Bounded: false when it does not come true.
  static bool eventually(const std::function<bool()>& condition)
  {
    const auto limit = std::chrono::steady_clock::now() + 20s;
    while (!condition())
    {
      if (std::chrono::steady_clock::now() > limit)
        return false;
      std::this_thread::yield();
    }
    return true;
  }

  std::set<std::string> held() { return ZBProxy(broker, "ZBFrameManager").call<std::set<std::string>>("behaviors"); }

  std::filesystem::path root;
  std::shared_ptr<ZBBroker> broker;
};

} // namespace

TEST_F(Integration, APackageInstalledDuringConstructionIsInTheCatalogueOnce)
{
  const auto one = source("one", {{"a", ""}});
  const auto two = source("two", {{"b", ""}});
  install(one);
  std::atomic<bool> done{false};
  auto installer = std::async(std::launch::async,
                              [&]
                              {
                                install(two);
                                for (int i = 0; i < 20; ++i)
                                  install(one); // each a removal and an installation
                                done = true;
                              });
  auto& manager = start();
  installer.get();
  EXPECT_TRUE(eventually([&] { return manager.getInstalledBehaviors().size() == 2; }));
  broker->pool()->waitUntilIdle();
  EXPECT_THAT(manager.getInstalledBehaviors(), testing::UnorderedElementsAre("one/a", "two/b"));
}

TEST_F(Integration, BehaviorsThatStopThemselvesOrEachOtherEnd)
{
  install(source("loop", {{"self", call("stopBehavior", "loop/self") + "<wait seconds=\"60\"/>"},
                          {"left", call("stopBehavior", "loop/right") + "<wait seconds=\"60\"/>"},
                          {"right", call("stopBehavior", "loop/left") + "<wait seconds=\"60\"/>"}}));
  auto& manager = start();
  EXPECT_EQ(manager.runBehavior("loop/self").error(), "");
  for (int i = 0; i < 20; ++i)
  {
    const auto left = manager.runBehavior("loop/left");
    vu::Future<void> right;
    try
    {
      right = manager.runBehavior("loop/right");
    }
    catch (const ZBError&)
    {
      // Stopped by the other between its load and its play.
    }
    EXPECT_TRUE(eventually([&] { return !manager.isBehaviorRunning("loop/left") || !manager.isBehaviorRunning("loop/right"); }));
    manager.stopBehavior("loop/left");
    manager.stopBehavior("loop/right");
    EXPECT_TRUE(left.wait(20s));
    EXPECT_TRUE(!right.valid() || right.wait(20s)) << i;
  }
  broker->pool()->waitUntilIdle();
  EXPECT_THAT(held(), IsEmpty());
}

TEST_F(Integration, ManyRunsOfRunsAndManyBlockedCallersAreServed)
{
  std::vector<std::pair<std::string, std::string>> behaviors{{"leaf20", "<wait seconds=\"0.05\"/>"}};
  for (int i = 0; i < 20; ++i)
    behaviors.emplace_back("leaf" + std::to_string(i), call("runBehavior", "chain/leaf" + std::to_string(i + 1)));
  install(source("chain", behaviors));
  auto& manager = start();
  const ZBProxy proxy(broker, "ZBBehaviorManager");
  const vu::Object object = proxy;
  // 50 callers that block in the pool of two, while the chain needs it, too.
  std::vector<vu::Future<void>> callers;
  std::promise<void> release;
  const auto released = release.get_future().share();
  for (int i = 0; i < 50; ++i)
  {
    const vu::Promise<void> promise(broker->pool());
    callers.push_back(promise.future());
    broker->pool()->post(
        [released, promise]
        {
          released.wait();
          promise.setValue();
        });
  }
  const auto chain = object.async<void>("runBehavior", std::string("chain/leaf0"));
  EXPECT_TRUE(chain.wait(20s));
  EXPECT_EQ(chain.error(), "");
  release.set_value();
  for (const auto& caller : callers)
    EXPECT_TRUE(caller.wait(20s));
  EXPECT_THAT(manager.getLoadedBehaviors(), IsEmpty());
}

TEST_F(Integration, ARemovedPackageTakesItsRunningBehaviorAlongAndComesBack)
{
  const auto directory = source("tide", {{"go", "<wait seconds=\"60\"/>"}});
  auto& manager = start();
  for (int i = 0; i < 10; ++i)
  {
    install(directory);
    ASSERT_TRUE(eventually([&] { return manager.isBehaviorInstalled("tide/go"); }));
    broker->pool()->waitUntilIdle();
    const auto run = manager.runBehavior("tide/go");
    if (i % 2 == 0)
      ZBProxy(broker, "PackageManager").call("remove", std::string("tide"));
    else
      install(directory); // an update: removed, then installed
    EXPECT_TRUE(run.wait(20s)) << "the client was not told";
    broker->pool()->waitUntilIdle();
    EXPECT_THAT(held(), IsEmpty());
    EXPECT_THAT(manager.getLoadedBehaviors(), IsEmpty());
    EXPECT_EQ(manager.isBehaviorInstalled("tide/go"), i % 2 != 0);
  }
}

TEST_F(Integration, AStormLeavesEverythingConsistentAndStoppable)
{
  std::vector<std::pair<std::string, std::string>> behaviors;
  for (int i = 0; i < 3; ++i)
  {
    behaviors.emplace_back("long" + std::to_string(i), "<wait seconds=\"60\"/>");
    behaviors.emplace_back("empty" + std::to_string(i), "");
    behaviors.emplace_back("fail" + std::to_string(i), "<fail reason=\"no arm\"/>");
  }
  install(source("storm", behaviors));
  auto& manager = start();
  std::vector<std::thread> clients;
  std::atomic<int> unexpected{0};
  // Takes no lock but that of the ids, so that only this one can keep the two apart.
  std::jthread asking(
      [&manager](const std::stop_token& stop)
      {
        while (!stop.stop_requested())
          EXPECT_THROW(manager.getBehaviorRelativePath("nobody"), ZBError);
      });
  for (unsigned client = 0; client < 10; ++client)
    clients.emplace_back(
        [&, client]
        {
          std::mt19937 random(client);
          std::vector<vu::Future<void>> runs;
          for (int i = 0; i < 150; ++i)
          {
            const auto name = "storm/" + behaviors[random() % behaviors.size()].first;
            try
            {
              switch (random() % 6)
              {
              case 0:
                manager.loadBehavior(name);
                break;
              case 1:
                manager.startBehavior(name);
                break;
              case 2:
                runs.push_back(manager.runBehavior(name));
                break;
              case 3:
              case 4:
                manager.stopBehavior(name);
                break;
              default:
                manager.getLoadedBehaviors();
                manager.isBehaviorRunning(name);
              }
            }
            catch (const ZBError& error)
            {
              const std::string text = error.what();
              if (text.find("already running") == std::string::npos && text.find("unexpectedly deleted") == std::string::npos)
                ++unexpected;
            }
          }
        });
  for (auto& client : clients)
    client.join();
  asking.request_stop();
  asking.join();
  EXPECT_EQ(unexpected, 0);
  EXPECT_TRUE(eventually([&] { return manager.getRunningBehaviors().size() <= 3; })) << "an instant behavior stays Running";
  broker->pool()->waitUntilIdle();
  std::set<std::string> ids;
  for (const auto& path : manager.getLoadedBehaviors())
    ids.insert(manager.getBehaviorFrameManagerId(path));
  EXPECT_EQ(ids.count(""), 0U) << "loaded without an id";
  EXPECT_EQ(ids, held());
  manager.stopAllBehaviors();
  for (const auto& path : manager.getLoadedBehaviors())
    manager.stopBehavior(path);
  broker->pool()->waitUntilIdle();
  EXPECT_THAT(held(), IsEmpty());
}

TEST_F(Integration, RemovalOfTheModuleUnderAStormLeavesNoInstanceAndNoOpenFuture)
{
  install(
      source("storm", {{"long", "<wait seconds=\"60\"/>"}, {"short", "<wait seconds=\"0.001\"/>"}, {"fail", "<fail reason=\"no arm\"/>"}}));
  for (int round = 0; round < 5; ++round)
  {
    start();
    const vu::Object object(broker->session()->find("ZBBehaviorManager"));
    std::atomic<bool> ended{false};
    std::vector<std::thread> clients;
    std::mutex mutex;
    std::vector<vu::Future<void>> runs;
    for (int client = 0; client < 4; ++client)
      clients.emplace_back(
          [&, client]
          {
            const std::vector<std::string> names{"System/storm/long", "storm/short", "storm/fail", "storm/long"};
            for (int i = 0; !ended && i < 2000; ++i)
            {
              auto run = object.async<void>("runBehavior", names[static_cast<std::size_t>(client + i) % names.size()]);
              const std::lock_guard lock(mutex);
              runs.push_back(std::move(run));
            }
          });
    EXPECT_TRUE(eventually(
        [&]
        {
          const std::lock_guard lock(mutex);
          return runs.size() > 100;
        }));
    broker->removeModule("ZBBehaviorManager");
    ended = true;
    for (auto& client : clients)
      client.join();
    for (const auto& run : runs)
      ASSERT_TRUE(run.wait(20s));
    broker->pool()->waitUntilIdle();
    EXPECT_THAT(held(), IsEmpty());
  }
}

TEST_F(Integration, ServicesThatVanishFailWhoNeedsThemAndNobodyElse)
{
  install(source("demo", {{"short", ""}, {"long", "<wait seconds=\"60\"/>"}}));
  auto& manager = start();
  const auto outcome = [](const auto& call) -> std::string
  {
    try
    {
      call();
      return "";
    }
    catch (const ZBError& error)
    {
      return error.what();
    }
  };
  broker->removeModule("PackageManager");
  manager.addDefaultBehavior("demo/short");
  EXPECT_EQ(manager.runBehavior("demo/short").error(), "");

  broker->removeModule("ZBPreferences");
  EXPECT_NE(outcome([&] { manager.addDefaultBehavior("demo/long"); }), "");
  EXPECT_EQ(manager.runBehavior("demo/short").error(), "");

  broker->removeModule("ZBMemory");
  EXPECT_EQ(manager.runBehavior("demo/short").error(), "");

  const auto run = manager.runBehavior("demo/long");
  EXPECT_TRUE(eventually([&] { return manager.isBehaviorRunning("demo/long"); }));
  broker->removeModule("ZBFrameManager");
  EXPECT_TRUE(run.wait(20s)) << "the caller waits for ever";
  EXPECT_EQ(outcome([&] { manager.stopBehavior("demo/long"); }), "");
  EXPECT_NE(outcome([&] { manager.startBehavior("demo/short"); }), "");
  EXPECT_NE(outcome([&] { manager.runBehavior("demo/long"); }), "");
  EXPECT_THAT(manager.getRunningBehaviors(), IsEmpty());
  EXPECT_THAT(manager.getInstalledBehaviors(), testing::UnorderedElementsAre("demo/short", "demo/long"));
}
