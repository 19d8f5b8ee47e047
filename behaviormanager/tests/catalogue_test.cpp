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

class Catalogue : public testing::Test
{
protected:
  TestPlatform platform;
};

/// What name resolution gives: "name | package | behavior".
std::string resolved(ZBBehaviorManager& manager, const std::string& name)
{
  std::string package = "untouched";
  std::string behavior = "untouched";
  const auto full = ModuleAccess{manager}.resolve(name, &package, &behavior);
  return full + " | " + package + " | " + behavior;
}

} // namespace

TEST_F(Catalogue, ListsByInstallerInOrderOfArrival)
{
  auto& manager = platform.start({platform.makePackage("U", TestPlatform::paths({"b", "a/x"}), ""),
                                  platform.makePackage("S", TestPlatform::paths({"."}), "system"), platform.makePackage("E", {}),
                                  platform.makePackage("T", TestPlatform::paths({"", "z"}), "System")});
  EXPECT_THAT(manager.getInstalledBehaviors(), ElementsAre("U/b", "U/a/x", "S", "T", "T/z"));
  EXPECT_TRUE(platform.log.lines().empty());
  EXPECT_THAT(manager.getUserBehaviorNames(), ElementsAre("User/U/b", "User/U/a/x", "User/T", "User/T/z"));
  EXPECT_THAT(manager.getSystemBehaviorNames(), ElementsAre("System/S"));
  platform.log.clear();
  EXPECT_THAT(manager.getBehaviorNames(), ElementsAre("User/U/b", "User/U/a/x", "User/T", "User/T/z", "System/S"));
  const std::string rest = " is deprecated. Please use getInstalledBehaviors instead, or use the PackageManager to filter results by "
                           "installer information.";
  std::vector<std::string> warnings;
  for (const auto& line : platform.log.lines())
    warnings.push_back(line.message);
  EXPECT_THAT(warnings, ElementsAre("getBehaviorNames" + rest, "getUserBehaviorNames" + rest, "getSystemBehaviorNames" + rest));
}

TEST_F(Catalogue, ResolvesEveryFormOfAName)
{
  auto& manager = platform.start({platform.makePackage("P", TestPlatform::paths({"a/b", ".", "x", "only"})),
                                  platform.makePackage("Q", TestPlatform::paths({"x", "P/gone", "User/odd"})),
                                  platform.makePackage("S", TestPlatform::paths({"x", "sys"}), "system")});
  const std::vector<std::pair<std::string, std::string>> cases{{"P/a/b", "P/a/b | P | a/b"},
                                                               {"P", "P/. | P | ."},
                                                               {"P/", "P/. | P | ."},
                                                               {"P/.", "P/. | P | ."},
                                                               {"P//a", " |  | ."},
                                                               {"a/b", "P/a/b | P | a/b"},
                                                               {"only", "P/only | P | only"},
                                                               {"System/S/x", "S/x | S | x"},
                                                               {"User/S/x", " |  | ."},
                                                               {"System/P/x", " |  | ."},
                                                               {"User/P/x", "P/x | P | x"},
                                                               {"User/only", " |  | ."},
                                                               {"System/sys", " |  | ."},
                                                               {"User/odd", "Q/User/odd | Q | User/odd"},
                                                               {"P/gone", "Q/P/gone | Q | P/gone"},
                                                               {"p/x", " |  | ."},
                                                               {"", " |  | ."},
                                                               {"System/", " |  | ."}};
  for (const auto& [name, result] : cases)
    EXPECT_EQ(resolved(manager, name), result) << name;
}

TEST_F(Catalogue, ResolvesTheEmptyNameToAnEmptyPath)
{
  auto& manager = platform.start({platform.makePackage("P", TestPlatform::paths({""}))});
  EXPECT_EQ(resolved(manager, ""), "P/ | P | ");
}

TEST_F(Catalogue, RefusesAnAmbiguousNameEverywhere)
{
  auto& manager = platform.start(
      {platform.makePackage("P", TestPlatform::paths({"x"})), platform.makePackage("S", TestPlatform::paths({"x"}), "system")});
  const std::string error =
      "xResolveBehaviorName: Found several behaviors with the name \"x\". Please specify the package uuid in which to find the behavior.";
  EXPECT_EQ(errorOf([&] { manager.resolveBehaviorName("x"); }), error);
  EXPECT_EQ(errorOf([&] { manager.isBehaviorInstalled("x"); }), error);
  EXPECT_EQ(errorOf([&] { manager.loadBehavior("x"); }), error);
  EXPECT_EQ(errorOf([&] { manager.isBehaviorRunning("x"); }), error);
  EXPECT_EQ(errorOf([&] { manager.getBehaviorTags("x"); }), error);
  EXPECT_EQ(errorOf([&] { manager.addDefaultBehavior("x"); }), error);
  EXPECT_EQ(platform.journal.lines("preferences write").size(), 0U);
}

TEST_F(Catalogue, TellsInstalledByTheDirectoryOnDisk)
{
  const auto package = platform.makePackage("P", TestPlatform::paths({"a", ".", "file"}));
  auto& manager = platform.start({package});
  std::filesystem::remove(platform.directory / "P/file");
  std::ofstream(platform.directory / "P/file") << "a file counts, too";
  for (const char* name : {"P", "P/a", "User/P/a", "file"})
    EXPECT_TRUE(manager.isBehaviorInstalled(name)) << name;
  EXPECT_FALSE(manager.isBehaviorInstalled("System/P/a"));
  EXPECT_FALSE(manager.isBehaviorInstalled("nothing"));
  std::filesystem::remove(platform.directory / "P/a");
  EXPECT_FALSE(manager.isBehaviorInstalled("P/a"));
  EXPECT_TRUE(platform.log.lines().empty());

  EXPECT_TRUE(manager.isBehaviorPresent("P"));
  EXPECT_EQ(platform.log.count(Level::Warning, "isBehaviorPresent is deprecated, please use isBehaviorInstalled instead"), 1U);

  std::filesystem::create_symlink("a", platform.directory / "P/a"); // a status that fails otherwise than by absence
  EXPECT_FALSE(manager.isBehaviorInstalled("P/a"));
  EXPECT_EQ(platform.log.count(Level::Error, "symbolic links"), 1U);
}

TEST_F(Catalogue, FindsDirectoriesOfListedBehaviorsOnly)
{
  auto& manager = platform.start({platform.makePackage("P", TestPlatform::paths({"a/b"}))});
  ModuleAccess access{manager};
  EXPECT_EQ(access.find("P"), "");
  EXPECT_EQ(access.find("P/a"), "");
  EXPECT_EQ(access.find("P/a/b"), (platform.directory / "P/a/b").string());
  EXPECT_EQ(access.packageDirectory("P"), (platform.directory / "P").string());
  EXPECT_EQ(access.packageDirectory("Q"), "");
}

TEST_F(Catalogue, AnnouncesAPackageBehaviorByBehaviorThenWhole)
{
  auto& manager = platform.start();
  const auto package = platform.makePackage("P", TestPlatform::paths({"b", "."}));
  platform.journal.clear();
  platform.install(package);
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("signal behaviorStopped [\"P/b\"]", "event ZBBehaviorManager/BehaviorAdded \"P/b\"",
                          "signal behaviorStopped [\"P/.\"]", "event ZBBehaviorManager/BehaviorAdded \"P/.\"",
                          "signal behaviorsAdded [[\"P/b\",\"P/.\"]]", "event ZBBehaviorManager/BehaviorsAdded [\"P/b\",\"P/.\"]"));
  EXPECT_THAT(manager.getInstalledBehaviors(), ElementsAre("P/b", "P"));
  platform.journal.clear();
  platform.install(package);
  EXPECT_THAT(platform.journal.lines(), IsEmpty()) << "a known package is announced again";

  // The record that comes with the event tells what goes, not the cached one.
  manager.loadBehavior("P/b");
  platform.journal.clear();
  platform.remove(platform.makePackage("P", TestPlatform::paths({"b"})));
  EXPECT_THAT(platform.journal.lines(),
              ElementsAre("frames deleteBehavior fm-1", "signal behaviorStopped [\"P/b\"]", "event ZBBehaviorManager/BehaviorsLoaded []",
                          "event ZBBehaviorManager/BehaviorRemoved \"P/b\"", "signal behaviorsRemoved [[\"P/b\"]]",
                          "event ZBBehaviorManager/BehaviorsRemoved [\"P/b\"]"));
  EXPECT_EQ(ModuleAccess{manager}.info("P/b")->state(), BehaviorState::Unknown);
  EXPECT_EQ(ModuleAccess{manager}.info("P/.")->state(), BehaviorState::Stopped);
  EXPECT_EQ(ModuleAccess{manager}.packageDirectory("P"), "");
  platform.journal.clear();
  platform.remove(package);
  EXPECT_THAT(platform.journal.lines(), IsEmpty()) << "an unknown package is announced";
}

TEST_F(Catalogue, LeavesAnInterruptedInstallationWhereItBrokeOff)
{
  auto& manager = platform.start();
  platform.memory->refuse("raiseMicroEvent ZBBehaviorManager/BehaviorAdded", "no", 1);
  platform.journal.clear();
  EXPECT_THROW(platform.install(platform.makePackage("P", TestPlatform::paths({"a", "b"}))), ZBError);
  EXPECT_THAT(platform.journal.lines(), ElementsAre("signal behaviorStopped [\"P/a\"]"));
  EXPECT_THAT(manager.getInstalledBehaviors(), ElementsAre("P/a", "P/b"));
  EXPECT_FALSE(ModuleAccess{manager}.hasRecord("P/b"));

  platform.journal.clear();
  ModuleAccess{manager}.updated("P/a");
  EXPECT_THAT(platform.journal.lines(), ElementsAre("event ZBBehaviorManager/BehaviorUpdated \"P/a\""));
}

TEST_F(Catalogue, AnswersAboutTagsAndNature)
{
  using Tags = std::map<std::string, std::list<std::string>>;
  auto& manager = platform.start();
  EXPECT_THAT(manager.getTagList(), IsEmpty());
  platform.install(platform.makePackage(
      "P", {vu::BehaviorInfo("x", "solitary", Tags{{"en_US", {"dance"}}, {"en", {"dance", "music"}}, {"fr", {"danse"}}}),
            vu::BehaviorInfo(".", "", Tags{{"en_US", {"zeal", "dance"}}})}));
  platform.install(platform.makePackage("A", {vu::BehaviorInfo("y", "interactive", Tags{{"en_US", {"dance", ""}}})}));
  EXPECT_THAT(manager.getTagList(), ElementsAre("", "dance", "music", "zeal"));
  EXPECT_THAT(manager.getBehaviorTags("P/x"), ElementsAre("dance", "music"));
  EXPECT_THAT(manager.getBehaviorTags("P"), ElementsAre("dance", "zeal"));
  EXPECT_THAT(manager.getBehaviorTags("nothing"), IsEmpty());
  EXPECT_THAT(manager.getBehaviorsByTag("dance"), ElementsAre("A/y", "P/.", "P/x"));
  EXPECT_THAT(manager.getBehaviorsByTag("music"), IsEmpty());
  EXPECT_THAT(manager.getBehaviorsByTag(""), ElementsAre("A/y"));
  EXPECT_EQ(manager.getBehaviorNature("y"), "interactive");
  EXPECT_EQ(manager.getBehaviorNature("P"), "");
  EXPECT_EQ(errorOf([&] { manager.getBehaviorNature(""); }), "getBehaviorNature: getBehaviorNature was called with an empty parameter.");
  EXPECT_EQ(errorOf([&] { manager.getBehaviorNature("foo"); }), "getBehaviorNature: foo was not found");
}
