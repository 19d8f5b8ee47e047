#include <packagemanager.hpp>

#include <latch>
#include <sys/stat.h>
#include <thread>

#include "packagefixture.hpp"
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
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
  ~Packages() override { broker->shutdown(); }

  void start(bool withMemory = true)
  {
    if (broker)
      broker->shutdown();
    broker = ZB::ZBBroker::create({{}, configuration});
    if (withMemory)
    {
      memory = &broker->createModule<ZB::ZBMemory>("ZBMemory");
      memory->eventRaised.connect(
          [this](const std::string& key, const vu::Value& value)
          { events.push_back(key + " " + vu::PackageInfo(value).uuid() + " " + vu::PackageInfo(value).version()); });
    }
    broker->createModule<ZB::PackageManager>("PackageManager");
    service = std::make_unique<ZB::ZBProxy>(broker, "PackageManager");
  }

  std::string install(const fs::path& path, const std::string& installer = "alice") const
  {
    return service->call<std::string>("install", path.string(), installer);
  }
  vu::PackageInfo check(const fs::path& path) const { return service->call<vu::PackageInfo>("check", path.string()); }
  std::vector<std::string> packages() const { return lines(service->call<std::vector<vu::PackageInfo>>("packages")); }

  static auto fails(const std::string& text) { return testing::ThrowsMessage<ZB::ZBError>(HasSubstr(text)); }

  fs::path store() const { return directory / "root" / "packages"; }

  vu::Value configuration;
  std::shared_ptr<ZB::ZBBroker> broker;
  ZB::ZBMemory* memory = nullptr;
  std::unique_ptr<ZB::ZBProxy> service;
  std::vector<std::string> events; // announced one at a time
  vu::log::Capture log;
};

TEST_F(Packages, directoriesAndArchivesAreCheckedWithoutAChangeThenInstalledAndStillThereAfterARestart)
{
  start();
  ZipWriter(directory / "b.zip").package(manifest("b", "2"));
  makePackage("source of a", "a");
  for (const auto& [source, record, uuid] : {std::tuple("b.zip", "b 2 ", "b"), std::tuple("source of a", "a 1 ", "a")})
  {
    EXPECT_THAT(lines({check(directory / source)}), ElementsAre(record));
    EXPECT_EQ(check(directory / source).path(), (store() / uuid).string());
  }
  EXPECT_THAT(packages(), IsEmpty());
  EXPECT_THAT(names(store()), IsEmpty());
  EXPECT_EQ(install(directory / "b.zip", "bob"), "b");
  EXPECT_EQ(install(directory / "source of a"), "a");
  EXPECT_THAT(events, ElementsAre("packageInstalled b 2", "packageInstalled a 1"));
  for (const bool restarted : {false, true})
  {
    SCOPED_TRACE(restarted);
    EXPECT_THAT(packages(), ElementsAre("a 1 alice", "b 2 bob"));
    const auto b = service->call<vu::PackageInfo>("package", "b");
    EXPECT_EQ(b.path() + " " + b.behaviors().front().path(), (store() / "b").string() + " hello");
    EXPECT_TRUE(service->call<bool>("hasPackage", "b"));
    start();
  }
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

TEST_F(Packages, refusedChangesNameTheCauseAndChangeNothing)
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
    const auto path = directory / name;
    const auto told =
        testing::ThrowsMessage<ZB::ZBError>(testing::AllOf(testing::StartsWith("\"" + path.string() + "\": "), HasSubstr(fault)));
    EXPECT_THAT([&] { install(path); }, told);
    EXPECT_THAT([&] { check(path); }, told);
  }
  for (const auto* path : {"", ".", "good"})
    EXPECT_THAT([&] { install(path); }, fails("is not absolute")) << path;
  for (const auto& installer : {std::string("system"), std::string(), std::string("a\nb"), std::string(129, 'x')})
    EXPECT_THAT([&] { install(directory / "good", installer); }, fails("installer")) << installer;
  for (const auto* uuid : {"", "x", "..", "../packages", "."})
  {
    EXPECT_THAT([&] { service->call("remove", uuid); }, fails("there is no package \"" + std::string(uuid) + "\""));
    EXPECT_THAT([&] { service->call<vu::PackageInfo>("package", uuid); }, fails("there is no package"));
    EXPECT_FALSE(service->call<bool>("hasPackage", uuid));
  }
  EXPECT_THAT(packages(), ElementsAre("p 1 alice"));
  EXPECT_THAT(names(store()), ElementsAre("p"));
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(read(store() / "p" / "manifest.xml"), HasSubstr("version='1'"));
}

TEST_F(Packages, systemPackagesComeFromPackageDirectoriesAndDirectoriesOfThemAndStay)
{
  const auto many = directory / "many", again = makePackage("again", "a", "2"), missing = directory / "missing";
  const auto single = makePackage("single", "single");
  for (const auto* name : {"a", "b", ".hidden", "damaged"})
    makePackage(many / name, name);
  write(many / "README", "x");
  write(many / "damaged" / "manifest.xml", "<pack");
  configuration["systemPackages"] = {single.string(), many.string(), again.string(), missing.string(), "relative", 7};
  start();
  install(makePackage("user", "user"));
  EXPECT_THAT(packages(), ElementsAre("a 1 system", "b 1 system", "single 1 system", "user 1 alice"));
  for (const auto& left : {"the system package in \"" + (many / "damaged").string(), "the system package in \"" + again.string(),
                           "from \"" + missing.string(), std::string("from \"relative\""), std::string("from 7")})
    EXPECT_EQ(log.count(vu::log::Level::Error, left), 1U) << left;
  EXPECT_EQ(service->call<vu::PackageInfo>("package", "single").path(), fs::canonical(single).string());

  events.clear();
  const std::function<void()> changes[] = {[&] { service->call("remove", "a"); }, [&] { install(again); }, [&] { check(again); }};
  for (const auto& change : changes)
    EXPECT_THAT(change, fails("belongs to the system"));
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
  std::latch begin(4);
  std::vector<std::jthread> threads;
  for (int installer = 0; installer < 4; ++installer)
  {
    const auto source = makePackage("source" + std::to_string(installer), "p", std::to_string(installer));
    threads.emplace_back(
        [&, source]
        {
          begin.arrive_and_wait();
          for (int i = 0; i < 5; ++i)
            install(source);
        });
  }
  threads.clear();
  std::string present;
  int installed = 0;
  for (const auto& event : events)
  {
    const auto version = event.substr(event.rfind(' ') + 1);
    const bool removed = event.starts_with("packageRemoved");
    EXPECT_EQ(present, removed ? version : "") << "removals and installations do not alternate";
    present = removed ? "" : version;
    installed += !removed;
  }
  EXPECT_EQ(installed, 20);
  EXPECT_THAT(packages(), ElementsAre("p " + present + " alice"));
  EXPECT_THAT(read(store() / "p" / "manifest.xml"), HasSubstr("version='" + present + "'"));
  EXPECT_THAT(names(store()), ElementsAre("p"));
}

TEST_F(Packages, limitsOfArchivesAreConfigurable)
{
  ZipWriter(directory / "p.zip").package(manifest("p")).file("data", std::string(5000, 'x'));
  for (const auto& [limit, value] : {std::pair("bytes", 5000), std::pair("entries", 3)})
  {
    configuration["packageLimits"] = {{limit, value}};
    start();
    EXPECT_THAT([&] { install(directory / "p.zip"); }, fails("more than " + std::to_string(value) + " " + limit));
    EXPECT_THAT(names(store()), IsEmpty());
  }
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
    configuration = wrong;
    EXPECT_THROW(start(), ZB::ZBError);
  }
}

TEST_F(Packages, withoutAMemoryEventsAreLoggedAndPackagesWork)
{
  start(false);
  EXPECT_EQ(install(makePackage("p", "p")), "p");
  EXPECT_EQ(log.count(vu::log::Level::Error, "could not declare"), 2U);
  EXPECT_EQ(log.count(vu::log::Level::Error, "could not raise \"packageInstalled\" for \"p\""), 1U);
}

TEST_F(Packages, changesMadeInsideAnEventAreAnnouncedInOrderBeforeTheOuterCallReturns)
{
  start();
  const auto onEvent = [&](const std::string& key, const vu::Value& package)
  {
    const std::string uuid = package["uuid"];
    EXPECT_EQ(service->call<bool>("hasPackage", uuid), key == "packageInstalled");
    if (key == "packageInstalled" && uuid == "first")
      install(directory / "second");
    else if (key == "packageInstalled")
      service->call("remove", "second");
  };
  memory->eventRaised.connect(onEvent);
  makePackage("second", "second");
  install(makePackage("first", "first"));
  EXPECT_THAT(events, ElementsAre("packageInstalled first 1", "packageInstalled second 1", "packageRemoved second 1"));
}

} // namespace
