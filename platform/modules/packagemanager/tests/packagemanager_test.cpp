#include <packagemanager.hpp>

#include <latch>
#include <mutex>
#include <sys/stat.h>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packagefixture.hpp"
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zbmemory.hpp>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class Packages : public PackageFixture
{
protected:
  Packages() { configuration["root"] = (directory / "root").string(); }
  ~Packages() override { stop(); }

  void stop()
  {
    if (broker)
      broker->shutdown();
    broker.reset();
  }

  static std::shared_ptr<ZB::ZBBroker> makeBroker(const vu::Value& configuration)
  {
    ZB::ZBBroker::Options options;
    options.configuration = configuration;
    return ZB::ZBBroker::create(options);
  }

  void start()
  {
    stop();
    broker = makeBroker(configuration);
    auto& memory = broker->createModule<ZB::ZBMemory>("ZBMemory");
    memory.eventRaised.connect([this](const std::string& key, const vu::Value& value) { onEvent(key, vu::PackageInfo(value)); });
    broker->createModule<ZB::PackageManager>("PackageManager");
    service = std::make_unique<ZB::ZBProxy>(broker, "PackageManager");
  }

  virtual void onEvent(const std::string& key, const vu::PackageInfo& package)
  {
    const std::lock_guard lock(mutex);
    events.push_back(key + " " + package.uuid() + " " + package.version());
  }

  std::string install(const fs::path& path, const std::string& installer = "alice") const
  {
    return service->call<std::string>("install", path.string(), installer);
  }

  std::vector<std::string> packages() const
  {
    std::vector<std::string> result;
    for (const auto& package : service->call<std::vector<vu::PackageInfo>>("packages"))
      result.push_back(package.uuid() + " " + package.version() + " " + package.installer());
    return result;
  }

  template <typename F> static std::string serviceErrorOf(const F& function)
  {
    try
    {
      function();
      return "no error";
    }
    catch (const ZB::ZBError& error)
    {
      return error.what();
    }
  }

  fs::path store() const { return directory / "root" / "packages"; }

  vu::Value configuration;
  std::shared_ptr<ZB::ZBBroker> broker;
  std::unique_ptr<ZB::ZBProxy> service;
  std::mutex mutex; // guards events
  std::vector<std::string> events;
  vu::log::Capture log;
};

TEST_F(Packages, directoriesAndArchivesAreInstalledAndStillThereAfterARestart)
{
  start();
  ZipWriter(directory / "b.zip").package(manifest("b", "2")).file("run.sh", "#!/bin/sh\n", 0755);
  EXPECT_EQ(install(directory / "b.zip", "bob"), "b");
  EXPECT_EQ(install(makePackage("source of a", "a")), "a");
  EXPECT_THAT(events, ElementsAre("packageInstalled b 2", "packageInstalled a 1"));
  for (const bool restarted : {false, true})
  {
    SCOPED_TRACE(restarted);
    EXPECT_THAT(packages(), ElementsAre("a 1 alice", "b 2 bob"));
    const auto b = service->call<vu::PackageInfo>("package", "b");
    EXPECT_EQ(b.path(), (store() / "b").string());
    EXPECT_EQ(b.behaviors().front().path(), "hello");
    EXPECT_TRUE(service->call<bool>("hasPackage", "b"));
    start();
  }
  EXPECT_NE(fs::status(store() / "b" / "run.sh").permissions() & fs::perms::owner_exec, fs::perms::none);
}

TEST_F(Packages, replacingRaisesTheOldRecordAsRemovedThenTheNewOneAsInstalled)
{
  start();
  install(makePackage("one", "p", "1"));
  install(makePackage("two", "p", "2"), "bob");
  EXPECT_THAT(events, ElementsAre("packageInstalled p 1", "packageRemoved p 1", "packageInstalled p 2"));
  EXPECT_THAT(packages(), ElementsAre("p 2 bob"));
  service->call("remove", "p");
  EXPECT_EQ(events.back(), "packageRemoved p 2");
  EXPECT_THAT(packages(), IsEmpty());
  EXPECT_FALSE(service->call<bool>("hasPackage", "p"));
  EXPECT_THAT(names(store()), IsEmpty());
}

TEST_F(Packages, refusedInstallationsNameTheCauseAndChangeNothing)
{
  start();
  install(makePackage("good", "p", "1"));
  events.clear();
  write(makePackage("broken", "p", "2") / "manifest.xml", "<package uuid='p' version='2'><behavior path='gone'/></package>");
  ZipWriter(directory / "hostile.zip").package(manifest("p", "2")).link("l", "/");
  ZipWriter(directory / "wrapped.zip").file("p/manifest.xml", manifest("p", "2"));
  write(directory / "text", "x");
  fs::create_directory(directory / "empty");
  ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
  const std::pair<const char*, const char*> cases[] = {
      {"broken", "manifest.xml, line 1, offset 31: the project file \"gone/behavior.xar\" is missing"},
      {"hostile.zip", "the link \"l\" leads out of the package"},
      {"wrapped.zip", "there is no manifest.xml at the top"},
      {"text", "no zip archive"},
      {"empty", "there is no manifest.xml at the top"},
      {"missing", "there is no such file or directory"},
      {"text/below", "there is no such file or directory"},
      {"pipe", "neither a directory nor a zip archive"}};
  for (const auto& [name, fault] : cases)
  {
    SCOPED_TRACE(name);
    const auto path = (directory / name).string();
    for (const auto& error :
         {serviceErrorOf([&] { install(path); }), serviceErrorOf([&] { service->call<vu::PackageInfo>("check", path); })})
      EXPECT_THAT(error, testing::AllOf(testing::StartsWith("\"" + path + "\": "), HasSubstr(fault)));
  }
  for (const auto* path : {"", ".", "good"})
    EXPECT_THAT(serviceErrorOf([&] { install(path); }), HasSubstr("is not absolute")) << path;
  for (const auto& installer : {std::string("system"), std::string(), std::string("a\nb"), std::string(129, 'x')})
    EXPECT_THAT(serviceErrorOf([&] { install(directory / "good", installer); }), HasSubstr("installer")) << installer;
  EXPECT_THAT(packages(), ElementsAre("p 1 alice"));
  EXPECT_THAT(names(store()), ElementsAre("p"));
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(read(store() / "p" / "manifest.xml"), HasSubstr("version='1'"));
}

TEST_F(Packages, unknownPackageIsAnErrorThatNamesIt)
{
  start();
  for (const auto* uuid : {"", "x", "..", "../packages", "."})
  {
    EXPECT_THAT(serviceErrorOf([&] { service->call("remove", uuid); }), HasSubstr("there is no package \"" + std::string(uuid) + "\""));
    EXPECT_THAT(serviceErrorOf([&] { service->call<vu::PackageInfo>("package", uuid); }), HasSubstr("there is no package"));
    EXPECT_FALSE(service->call<bool>("hasPackage", uuid));
  }
}

TEST_F(Packages, checkGivesTheRecordAndChangesNothing)
{
  start();
  makePackage("p", "p", "3");
  ZipWriter(directory / "p.zip").package(manifest("p", "3"));
  for (const auto* source : {"p", "p.zip"})
  {
    const auto package = service->call<vu::PackageInfo>("check", (directory / source).string());
    EXPECT_EQ(package.uuid() + package.version(), "p3");
    EXPECT_EQ(package.installer(), "");
    EXPECT_EQ(package.path(), (store() / "p").string());
  }
  EXPECT_THAT(packages(), IsEmpty());
  EXPECT_THAT(names(store()), IsEmpty());
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(Packages, systemPackagesComeFromPackageDirectoriesAndDirectoriesOfThemAndStay)
{
  const auto single = makePackage("single", "single");
  makePackage("many/a", "a");
  makePackage("many/b", "b");
  makePackage("many/.hidden", "hidden");
  write(directory / "many" / "README", "x");
  write(makePackage("many/damaged", "damaged") / "manifest.xml", "<pack");
  makePackage("again", "a", "2");
  configuration["systemPackages"] = {
      single.string(), (directory / "many").string(), (directory / "again").string(), (directory / "missing").string(), "relative", 7};
  start();
  install(makePackage("user", "user"));
  const std::vector<std::string> expected = {"a 1 system", "b 1 system", "single 1 system", "user 1 alice"};
  EXPECT_EQ(packages(), expected);
  for (const auto& left :
       {"the system package in \"" + (directory / "many" / "damaged").string(), "the system package in \"" + (directory / "again").string(),
        "no system packages from \"" + (directory / "missing").string(), std::string("no system packages from \"relative\""),
        std::string("no system packages from 7")})
    EXPECT_EQ(log.count(vu::log::Level::Error, left), 1U) << left;
  EXPECT_EQ(service->call<vu::PackageInfo>("package", "single").path(), fs::canonical(single).string());

  events.clear();
  EXPECT_THAT(serviceErrorOf([&] { service->call("remove", "a"); }), HasSubstr("belongs to the system"));
  EXPECT_THAT(serviceErrorOf([&] { install(directory / "again"); }), HasSubstr("belongs to the system"));
  EXPECT_THAT(serviceErrorOf([&] { service->call<vu::PackageInfo>("check", (directory / "again").string()); }),
              HasSubstr("belongs to the system"));
  EXPECT_THAT(names(store()), ElementsAre("user"));
  EXPECT_THAT(events, IsEmpty());

  makePackage("many/user", "user", "9");
  start();
  EXPECT_THAT(packages(), testing::Contains("user 9 system"));
  EXPECT_EQ(log.count(vu::log::Level::Error, (store() / "user").string() + "\" is left out"), 1U);
}

TEST_F(Packages, concurrentInstallationsOfOneUuidHappenOneAfterTheOther)
{
  start();
  constexpr int installers = 4;
  constexpr int installations = 5;
  std::latch begin(installers);
  std::vector<std::thread> threads;
  for (int installer = 0; installer < installers; ++installer)
  {
    const auto source = makePackage("source" + std::to_string(installer), "p", std::to_string(installer));
    threads.emplace_back(
        [&, source]
        {
          begin.arrive_and_wait();
          for (int i = 0; i < installations; ++i)
            install(source);
        });
  }
  for (auto& thread : threads)
    thread.join();
  std::string present;
  std::size_t installed = 0;
  for (const auto& event : events)
  {
    const auto version = event.substr(event.rfind(' ') + 1);
    if (event.starts_with("packageRemoved"))
    {
      EXPECT_EQ(version, present);
      present.clear();
      continue;
    }
    EXPECT_EQ(present, "") << "installed over one that was not removed";
    present = version;
    ++installed;
  }
  EXPECT_EQ(installed, static_cast<std::size_t>(installers * installations));
  EXPECT_THAT(packages(), ElementsAre("p " + present + " alice"));
  EXPECT_THAT(read(store() / "p" / "manifest.xml"), HasSubstr("version='" + present + "'"));
  EXPECT_THAT(names(store()), ElementsAre("p"));
}

TEST_F(Packages, limitsOfArchivesAreConfigurable)
{
  ZipWriter(directory / "p.zip").package(manifest("p")).file("data", std::string(5000, 'x'));
  configuration["packageLimits"] = {{"bytes", 5000}};
  start();
  EXPECT_THAT(serviceErrorOf([&] { install(directory / "p.zip"); }), HasSubstr("more than 5000 bytes"));
  configuration["packageLimits"] = {{"entries", 3}};
  start();
  EXPECT_THAT(serviceErrorOf([&] { install(directory / "p.zip"); }), HasSubstr("more than 3 entries"));
  EXPECT_THAT(names(store()), IsEmpty());
  configuration["packageLimits"] = {{"bytes", 6000}, {"entries", 4}};
  start();
  EXPECT_EQ(install(directory / "p.zip"), "p");
}

TEST_F(Packages, wrongConfigurationIsRefused)
{
  for (const auto& wrong :
       {vu::Value({{"root", nullptr}}), vu::Value({{"root", "relative"}}),
        vu::Value({{"root", directory.string()}, {"packageLimits", {{"bytes", -1}}}}), vu::Value({{"root", "/dev/null/nowhere"}})})
  {
    SCOPED_TRACE(wrong.dump());
    const auto other = makeBroker(wrong);
    EXPECT_THROW(other->createModule<ZB::PackageManager>("PackageManager"), ZB::ZBError);
    other->shutdown();
  }
}

TEST_F(Packages, withoutAMemoryEventsAreLoggedAndPackagesWork)
{
  broker = makeBroker(configuration);
  broker->createModule<ZB::PackageManager>("PackageManager");
  service = std::make_unique<ZB::ZBProxy>(broker, "PackageManager");
  EXPECT_EQ(install(makePackage("p", "p")), "p");
  EXPECT_EQ(log.count(vu::log::Level::Error, "could not declare"), 2U);
  EXPECT_EQ(log.count(vu::log::Level::Error, "could not raise \"packageInstalled\" for \"p\""), 1U);
}

/// Whoever is told of a change may ask for others.
class PackagesChangedInsideAnEvent : public Packages
{
protected:
  void onEvent(const std::string& key, const vu::PackageInfo& package) override
  {
    Packages::onEvent(key, package);
    EXPECT_EQ(service->call<bool>("hasPackage", package.uuid()), key == "packageInstalled");
    if (key == "packageInstalled" && package.uuid() == "first")
      install(directory / "second");
    else if (package.uuid() == "second" && key == "packageInstalled")
      service->call("remove", "second");
  }
};

TEST_F(PackagesChangedInsideAnEvent, followOnEventsComeInOrderBeforeTheOuterCallReturns)
{
  start();
  makePackage("second", "second");
  install(makePackage("first", "first"));
  EXPECT_THAT(events, ElementsAre("packageInstalled first 1", "packageInstalled second 1", "packageRemoved second 1"));
}

} // namespace
