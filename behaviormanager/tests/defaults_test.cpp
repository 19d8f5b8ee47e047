#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using testing::IsEmpty;
using vu::log::Level;

namespace
{

vu::Value fileWith(const std::string& text)
{
  return vu::Value::array({vu::Value::array({"DefaultBehaviors", "List of default behaviors separated by endlines", text})});
}

class Defaults : public testing::Test
{
protected:
  Defaults() : manager(platform.start({platform.makePackage("P", TestPlatform::paths({"a", "b", "."}))})) {}

  TestPlatform platform;
  ZBBehaviorManager& manager;
};

} // namespace

TEST_F(Defaults, AreWrittenResolvedAndSortedOnEveryAddAndRemove)
{
  EXPECT_THAT(manager.getDefaultBehaviors(), IsEmpty());
  EXPECT_EQ(platform.log.count(Level::Verbose, "DefaultBehaviors preference file could not be read: there is no file DefaultBehaviors"),
            1U);
  platform.journal.clear();
  manager.addDefaultBehavior("User/P/b");
  EXPECT_EQ(platform.preferences->file(), fileWith("P/b\n"));
  manager.addDefaultBehavior("P");
  manager.addDefaultBehavior("P/b");
  EXPECT_EQ(platform.preferences->file(), fileWith("P/.\nP/b\n"));
  EXPECT_THAT(platform.journal.lines("preferences "),
              ElementsAre("read DefaultBehaviors false", "write DefaultBehaviors true", "read DefaultBehaviors false",
                          "write DefaultBehaviors true", "read DefaultBehaviors false", "write DefaultBehaviors true"));
  EXPECT_TRUE(ModuleAccess{manager}.isDefault("P/b"));
  EXPECT_FALSE(ModuleAccess{manager}.isDefault("b")) << "membership resolves no names";

  manager.removeDefaultBehavior("b"); // by the resolved form
  EXPECT_EQ(platform.preferences->file(), fileWith("P/.\n"));
  platform.journal.clear();
  manager.removeDefaultBehavior("unknown");
  manager.removeDefaultBehavior("P/.");
  manager.removeDefaultBehavior("P/.");
  EXPECT_EQ(platform.journal.lines("preferences write").size(), 3U);
  EXPECT_EQ(platform.preferences->file(), fileWith(""));
}

TEST_F(Defaults, AreReadFromWhateverTheFileHolds)
{
  const std::vector<std::pair<vu::Value, std::vector<std::string>>> cases{
      {fileWith("P/b\n\n\nP/a"), {"P/a", "P/b"}},
      {fileWith("\nb\nP/b\nGone/x\nP/a\r\n a\n"), {"P/b"}},
      {fileWith(""), {}},
      {vu::Value::array({vu::Value::array({"Other", 7, "P/a\n"}), "more"}), {"P/a"}},
      {vu::Value::array({vu::Value::array({"DefaultBehaviors", "too short"})}), {}},
      {vu::Value::array({vu::Value::array({"", "", 7})}), {}},
      {vu::Value::array(), {}},
      {"text", {}},
      {nullptr, {}},
      {vu::Value::object({{"0", 1}}), {}}};
  for (const auto& [file, names] : cases)
  {
    platform.preferences->setFile(file);
    EXPECT_EQ(manager.getDefaultBehaviors(), names) << file;
  }
}

TEST_F(Defaults, ReportFailures)
{
  EXPECT_EQ(errorOf([&] { manager.addDefaultBehavior("foo"); }), "preloadBehavior: behavior foo is not installed");
  EXPECT_EQ(platform.preferences->file(), vu::Value());
  platform.preferences->refuse("writePrefFile", "disk full");
  EXPECT_EQ(errorOf([&] { manager.addDefaultBehavior("P/a"); }), "of another module: ZBPreferences");
}

TEST_F(Defaults, PlayTheStartUpBehaviorOnceAndFirst)
{
  std::vector<std::string> played;
  const auto playedNow = [&]
  {
    platform.journal.clear();
    manager.playDefaultProject();
    platform.settle();
    manager.stopAllBehaviors();
    platform.settle();
    auto started = platform.journal.lines("frames createBehavior ");
    std::sort(started.begin(), started.end());
    return started;
  };
  EXPECT_THAT(playedNow(), IsEmpty());
  platform.preferences->setFile(fileWith("P/b\nP/a\nP/.\n"));
  std::filesystem::remove(platform.directory / "P/a");
  EXPECT_THAT(playedNow(), ElementsAre("P/.", "P/b"));
  EXPECT_EQ(platform.preferences->file(), fileWith("P/b\nP/a\nP/.\n"));

  platform.install(platform.makePackage("S", TestPlatform::paths({".default"})));
  platform.preferences->setFile(fileWith(".default\nS/.default\n"));
  platform.log.clear();
  EXPECT_THAT(playedNow(), ElementsAre("S/.default"));
  EXPECT_EQ(platform.log.count(Level::Warning, "already running"), 0U) << "it was posted twice";
}

TEST_F(Defaults, CopyStopsAtTheFirstFailure)
{
  ModuleAccess access{manager};
  const auto directory = platform.directory;
  std::filesystem::create_directories(directory / "from/inner");
  std::ofstream(directory / "from/inner/file") << "content";
  EXPECT_TRUE(access.copy(directory / "from", directory / "to"));
  EXPECT_TRUE(std::filesystem::exists(directory / "to/inner/file"));
  EXPECT_FALSE(access.copy(directory / "from", directory / "to")) << "a file that exists was overwritten";
  EXPECT_FALSE(access.copy(directory / "from", directory / "to/inner/file"));
  EXPECT_FALSE(access.copy(directory / "from", directory / "no/parent"));
  EXPECT_FALSE(access.copy(directory / "missing", directory / "copy"));
  EXPECT_FALSE(std::filesystem::exists(directory / "copy"));
}
