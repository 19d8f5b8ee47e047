#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <behaviormanager/catalogue.hpp>
#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <vu/log.hpp>

using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using vu::log::Level;

namespace
{

vu::PackageInfo package(const std::string& uuid, const std::vector<std::string>& paths, const std::string& directory = {},
                        const std::string& installer = "user")
{
  return vu::PackageInfo(vu::PackageInfo::Data{uuid, {}, installer, directory, {}, {}, {paths.begin(), paths.end()}});
}

} // namespace

TEST(BehaviorCatalogue, ListsByInstallerInOrderOfArrivalAndTellsInstallationsApart)
{
  Catalogue catalogue;
  catalogue.fill([] { return std::vector{package("U", {"b"}, {}, ""), package("S", {"."}, {}, "system"), package("E", {})}; });
  const auto first = catalogue.add(package("T", {"", "z"}, "/t", "System"));
  EXPECT_EQ(catalogue.add(package("T", {}, "/other")), Catalogue::noInstallation) << "it is there already";
  EXPECT_THAT(catalogue.xGetBehaviorsInPackages(Catalogue::InstallerAll), ElementsAre("U/b", "S", "T", "T/z"));
  EXPECT_THAT(catalogue.xGetBehaviorsInPackages(Catalogue::InstallerUser), ElementsAre("U/b", "T", "T/z"));
  EXPECT_THAT(catalogue.xGetBehaviorsInPackages(Catalogue::InstallerSystem), ElementsAre("S"));
  auto found = Catalogue::noInstallation;
  EXPECT_EQ(catalogue.getPackageDir("T", &found), "/t");
  EXPECT_EQ(found, first);
  EXPECT_TRUE(catalogue.remove("T"));
  EXPECT_FALSE(catalogue.remove("T"));
  EXPECT_EQ(catalogue.getPackageDir("T"), "");
  EXPECT_NE(catalogue.add(package("T", {}, "/t")), first);
}

TEST(BehaviorCatalogue, ResolvesEveryFormOfAName)
{
  Catalogue catalogue;
  catalogue.add(package("P", {"a/b", ".", "x"}));
  catalogue.add(package("Q", {"x", "P/gone", "User/odd"}));
  catalogue.add(package("S", {"x", "s"}, {}, "system"));
  const std::string nothing = " || .";
  const std::string ambiguous =
      "Found several behaviors with the name \"x\". Please specify the package uuid in which to find the behavior.";
  for (const auto& [name, result] : std::vector<std::pair<std::string, std::string>>{{"P/a/b", "P/a/b |P| a/b"},
                                                                                     {"P", "P/. |P| ."},
                                                                                     {"P/", "P/. |P| ."},
                                                                                     {"P//a/b", nothing},
                                                                                     {"a/b", "P/a/b |P| a/b"},
                                                                                     {"User/P/x", "P/x |P| x"},
                                                                                     {"System/S/x", "S/x |S| x"},
                                                                                     {"System/P/x", nothing},
                                                                                     {"User/S/x", nothing},
                                                                                     {"System/s", nothing},
                                                                                     {"User/a/b", nothing},
                                                                                     {"User/odd", "Q/User/odd |Q| User/odd"},
                                                                                     {"P/gone", "Q/P/gone |Q| P/gone"},
                                                                                     {"p/x", nothing},
                                                                                     {"", nothing},
                                                                                     {"x", ambiguous}})
  {
    std::string uuid;
    std::string path;
    const auto error =
        TestSupport::errorOf([&, &name = name] { uuid = catalogue.xResolveBehaviorName(name, &uuid, &path) + " |" + uuid + "| " + path; });
    EXPECT_EQ(error == "no error" ? uuid : error, result) << name;
  }
  catalogue.add(package("R", {""}));
  EXPECT_EQ(catalogue.xResolveBehaviorName(""), "R/");
}

TEST(BehaviorCatalogue, AnswersAboutTagsAndNatureOfOneBehaviorAndOfAll)
{
  using Tags = std::map<std::string, std::list<std::string>>;
  const auto make = [](const std::string& uuid, const std::string& nature, const Tags& tags) {
    return vu::PackageInfo(vu::PackageInfo::Data{uuid, {}, {}, {}, {}, {}, {vu::BehaviorInfo("a", nature, tags)}});
  };
  Catalogue catalogue;
  EXPECT_THAT(catalogue.getBehaviorTags(""), testing::IsEmpty());
  catalogue.add(make("P", "solitary", {{"en_US", {"dance"}}, {"en", {"music", "dance"}}, {"fr", {"danse"}}}));
  catalogue.add(make("A", "interactive", {{"en_US", {"zeal", "dance", ""}}}));
  EXPECT_THAT(catalogue.getBehaviorTags(""), ElementsAre("", "dance", "music", "zeal"));
  EXPECT_THAT(catalogue.getBehaviorTags("P/a"), ElementsAre("dance", "music"));
  EXPECT_THAT(catalogue.getBehaviorTags("nothing"), testing::IsEmpty());
  EXPECT_THAT(catalogue.getBehaviorsByTag("dance"), ElementsAre("A/a", "P/a"));
  EXPECT_THAT(catalogue.getBehaviorsByTag("music"), testing::IsEmpty());
  EXPECT_THAT(catalogue.getBehaviorsByTag(""), ElementsAre("A/a"));
  EXPECT_EQ(catalogue.getBehaviorNature("P/a") + catalogue.getBehaviorNature("A/a"), "solitaryinteractive");
  for (const auto& [name, error] :
       std::map<std::string, std::string>{{"", "getBehaviorNature was called with an empty parameter."}, {"foo", "foo was not found"}})
    EXPECT_EQ(TestSupport::errorOf([&, name = name] { catalogue.getBehaviorNature(name); }), error);
}

TEST(BehaviorCatalogue, TellsInstalledByTheDirectoryOnDisk)
{
  const TestSupport::TemporaryDirectory directory;
  const vu::log::Capture log;
  Catalogue catalogue;
  catalogue.add(package("P", {"file", "loop", "."}, directory.string()));
  EXPECT_TRUE(catalogue.isBehaviorInstalled("P"));
  EXPECT_FALSE(catalogue.isBehaviorInstalled("P/file"));
  TestSupport::writeFile(directory / "file", "a file counts, too");
  EXPECT_TRUE(catalogue.isBehaviorInstalled("P/file"));
  EXPECT_TRUE(log.lines().empty());
  std::filesystem::create_symlink("loop", directory / "loop"); // a status that fails otherwise than by absence
  EXPECT_FALSE(catalogue.isBehaviorInstalled("P/loop"));
  EXPECT_EQ(log.count(Level::Error, "symbolic links"), 1U);
}
