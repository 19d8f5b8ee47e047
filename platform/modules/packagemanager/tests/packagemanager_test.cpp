#include <packagemanager.hpp>

#include <latch>
#include <sys/stat.h>
#include <thread>

#include "packagefixture.hpp"
#include <testing/filefaults.hpp>
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

  fs::path store() const { return directory / "root" / "packages"; }

  vu::Value configuration;
  std::shared_ptr<ZB::ZBBroker> broker;
  ZB::ZBMemory* memory = nullptr;
  std::unique_ptr<ZB::ZBProxy> service;
  std::vector<std::string> events; // announced one at a time
  vu::log::Capture log;
};

TEST_F(Packages, directoriesAndArchivesAreCheckedWithoutAChangeThenInstalledReplacedAndStillThereAfterARestartUntilRemoved)
{
  start();
  ZipWriter(directory / "b.zip").package(manifest("b", "2"));
  const std::tuple<fs::path, const char*, const char*> sources[] = {
      {directory / "b.zip", "b", "b 2 "},
      {makePackage("source of a", "a"), "a", "a 1 "},
      {TestSupport::writePackage(directory / "source of bare", "bare", {}), "bare", "bare 1 "}};
  for (const auto& [source, uuid, record] : sources)
  {
    EXPECT_THAT(lines({check(source)}), ElementsAre(record));
    EXPECT_EQ(check(source).path(), (store() / uuid).string());
  }
  EXPECT_THAT(packages(), IsEmpty());
  EXPECT_THAT(namesIn(store()), IsEmpty());
  for (const auto& [source, uuid, record] : sources)
    EXPECT_EQ(install(source, "bob"), uuid);
  install(makePackage("newer a", "a", "3"));
  EXPECT_THAT(events, ElementsAre("packageInstalled b 2", "packageInstalled a 1", "packageInstalled bare 1", "packageRemoved a 1",
                                  "packageInstalled a 3"));
  start();
  EXPECT_THAT(packages(), ElementsAre("a 3 alice", "b 2 bob", "bare 1 bob"));
  const auto b = service->call<vu::PackageInfo>("package", "b");
  EXPECT_EQ(b.path() + " " + b.behaviors().front().path(), (store() / "b").string() + " hello");
  EXPECT_TRUE(service->call<vu::PackageInfo>("package", "bare").behaviors().empty());
  events.clear();
  for (const auto* uuid : {"a", "bare"})
    service->call("remove", uuid);
  EXPECT_THAT(events, ElementsAre("packageRemoved a 3", "packageRemoved bare 1"));
  EXPECT_THAT(packages(), ElementsAre("b 2 bob"));
  EXPECT_THAT(namesIn(store()), ElementsAre("b"));
}

TEST_F(Packages, refusedChangesNameTheCauseAndChangeNothing)
{
  start();
  install(makePackage("good", "p", "1"));
  events.clear();
  writeFile(makePackage("broken", "p", "2") / "manifest.xml", "<package uuid='p' version='2'><behavior path='gone'/></package>");
  ZipWriter(directory / "hostile.zip").package(manifest("p", "2")).link("l", "/");
  fs::create_symlink("../../good", makePackage("linked", "p", "2") / "hello" / "link");
  writeFile(makePackage("marked", "p", "2") / ".installer", "system");
  ASSERT_EQ(mkfifo((makePackage("piped", "p", "2") / "pipe").c_str(), 0600), 0);
  makePackage("", "p", "2");
  ZipWriter(directory / "wrapped.zip").file("p/manifest.xml", manifest("p", "2"));
  writeFile(directory / "text", "x");
  fs::create_directory(directory / "empty");
  const std::pair<const char*, const char*> cases[] = {
      {"broken", "manifest.xml, line 1, offset 31: the project file \"gone/behavior.xar\" is missing"},
      {"hostile.zip", "the link \"l\" leads out of the package"},
      {"linked", "the link \"hello/link\" leads out of the package"},
      {"marked", "must not bring along the file .installer"},
      {"piped", "\"pipe\" is neither a file, a folder nor a link"},
      {"", "holds the folder of the installed packages"},
      {"wrapped.zip", "there is no manifest.xml at the top"},
      {"text", "no zip archive"},
      {"empty", "there is no manifest.xml at the top"},
      {"missing", "there is no such file or directory"},
      {"text/below", "there is no such file or directory"},
      {"piped/pipe", "neither a directory nor a zip archive"}};
  for (const auto& [name, fault] : cases)
  {
    SCOPED_TRACE(name);
    const auto path = directory / name;
    const auto told = testing::AllOf(testing::StartsWith("\"" + path.string() + "\": "), HasSubstr(fault));
    EXPECT_THAT(errorOf([&] { install(path); }), told);
    EXPECT_THAT(errorOf([&] { check(path); }), told);
  }
  for (const auto* path : {"", ".", "good"})
    EXPECT_THAT(errorOf([&] { install(path); }), HasSubstr("is not absolute")) << path;
  for (const auto& installer : {std::string("system"), std::string(), std::string("a\nb"), std::string(129, 'x')})
    EXPECT_THAT(errorOf([&] { install(directory / "good", installer); }), HasSubstr("installer")) << installer;
  for (const auto* uuid : {"", "x", "..", "../packages", "."})
  {
    const auto missing = "there is no package \"" + std::string(uuid) + "\"";
    EXPECT_EQ(errorOf([&] { service->call("remove", uuid); }), missing);
    EXPECT_EQ(errorOf([&] { service->call<vu::PackageInfo>("package", uuid); }), missing);
    EXPECT_FALSE(service->call<bool>("hasPackage", uuid));
  }
  EXPECT_THAT(packages(), ElementsAre("p 1 alice"));
  EXPECT_THAT(namesIn(store()), ElementsAre("p"));
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(Packages, systemPackagesComeFromPackageDirectoriesAndDirectoriesOfThemAndStay)
{
  const auto many = directory / "many", again = makePackage("again", "a", "2"), missing = directory / "missing";
  const auto single = makePackage("single", "single");
  for (const auto* name : {"a", "b", ".hidden", "damaged"})
    makePackage(many / name, name);
  writeFile(many / "README", "x");
  writeFile(many / "damaged" / "manifest.xml", "<pack");
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
    EXPECT_THAT(errorOf(change), HasSubstr("belongs to the system"));
  EXPECT_THAT(namesIn(store()), ElementsAre("user"));
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
  EXPECT_THAT(readFile(store() / "p" / "manifest.xml"), HasSubstr("version=\"" + present + "\""));
  EXPECT_THAT(namesIn(store()), ElementsAre("p"));
}

TEST_F(Packages, limitsOfArchivesAreConfigurable)
{
  ZipWriter(directory / "p.zip").package(manifest("p")).file("data", std::string(5000, 'x'));
  for (const auto& [limit, value] : {std::pair("bytes", 5000), std::pair("entries", 3)})
  {
    configuration["packageLimits"] = {{limit, value}};
    start();
    EXPECT_THAT(errorOf([&] { install(directory / "p.zip"); }), HasSubstr("more than " + std::to_string(value) + " " + limit));
    EXPECT_THAT(namesIn(store()), IsEmpty());
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

TEST_F(Packages, aPackageGoesThoughItsFolderHasVanishedOrTheDiskIsFull)
{
  start();
  install(makePackage("p", "p"));
  install(makePackage("q", "q"));
  fs::remove_all(store() / "p");
  service->call("remove", "p");
  {
    const TestSupport::Injection full(TestSupport::Fault::DiskFull, 1);
    service->call("remove", "q");
  }
  EXPECT_THAT(packages(), IsEmpty());
  EXPECT_THAT(namesIn(store()), IsEmpty());
  EXPECT_THAT(events, ElementsAre("packageInstalled p 1", "packageInstalled q 1", "packageRemoved p 1", "packageRemoved q 1"));
  EXPECT_EQ(log.count(vu::log::Level::Warning, "has gone already"), 1U);
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
