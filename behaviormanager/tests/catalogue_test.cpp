#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <behaviormanager/catalogue.hpp>
#include <testing/files.hpp>
#include <vu/log.hpp>

#include "testplatform.hpp"

using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using testing::IsEmpty;
using vu::log::Level;

namespace
{

vu::PackageInfo package(const std::string& uuid, const std::vector<std::string>& paths, const std::string& installer = "user",
                        const std::string& directory = {})
{
  std::list<vu::BehaviorInfo> behaviors;
  for (const auto& path : paths)
    behaviors.emplace_back(path);
  return vu::PackageInfo(vu::PackageInfo::Data{uuid, {}, installer, directory, {}, {}, behaviors});
}

} // namespace

TEST(BehaviorCatalogue, ListsByInstallerInOrderOfArrival)
{
  Catalogue catalogue;
  const std::vector<vu::PackageInfo> packages{package("U", {"b"}, ""), package("S", {"."}, "system"), package("E", {})};
  catalogue.fill([&] { return packages; });
  catalogue.add(package("T", {"", "z"}, "System"));
  EXPECT_THAT(catalogue.xGetBehaviorsInPackages(Catalogue::InstallerAll), ElementsAre("U/b", "S", "T", "T/z"));
  EXPECT_THAT(catalogue.xGetBehaviorsInPackages(Catalogue::InstallerUser), ElementsAre("U/b", "T", "T/z"));
  EXPECT_THAT(catalogue.xGetBehaviorsInPackages(Catalogue::InstallerSystem), ElementsAre("S"));
}

TEST(BehaviorCatalogue, TellsOneInstallationOfAPackageFromTheNext)
{
  Catalogue catalogue;
  const auto first = catalogue.add(package("P", {}, "user", "/p"));
  EXPECT_EQ(catalogue.add(package("P", {}, "user", "/other")), Catalogue::noInstallation) << "it is there already";
  auto found = Catalogue::noInstallation;
  EXPECT_EQ(catalogue.getPackageDir("P", &found), "/p");
  EXPECT_EQ(found, first);
  EXPECT_TRUE(catalogue.remove("P"));
  EXPECT_FALSE(catalogue.remove("P"));
  EXPECT_EQ(catalogue.getPackageDir("P"), "");
  EXPECT_NE(catalogue.add(package("P", {}, "user", "/p")), first);
}

TEST(BehaviorCatalogue, ResolvesEveryFormOfAName)
{
  Catalogue catalogue;
  catalogue.add(package("P", {"a/b", ".", "x"}));
  catalogue.add(package("Q", {"x", "P/gone", "User/odd"}));
  const auto resolved = [&catalogue](const std::string& name)
  {
    std::string uuid = "untouched";
    std::string path = "untouched";
    return refusal([&] { uuid = catalogue.xResolveBehaviorName(name, &uuid, &path) + " | " + uuid; }) + " | " + uuid + " | " + path;
  };
  const std::string nothing = "no error |  |  | .";
  for (const auto& [name, result] : std::vector<std::pair<std::string, std::string>>{
           {"P/a/b", "no error | P/a/b | P | a/b"},
           {"P/", "no error | P/. | P | ."},
           {"P//a/b", nothing},
           {"a/b", "no error | P/a/b | P | a/b"},
           {"User/a/b", nothing},
           {"User/odd", "no error | Q/User/odd | Q | User/odd"},
           {"P/gone", "no error | Q/P/gone | Q | P/gone"},
           {"p/x", nothing},
           {"", nothing},
           {"x", "ZBBehaviorManager.xResolveBehaviorName: Found several behaviors with the name \"x\". Please specify the package uuid in "
                 "which to find the behavior. | untouched | untouched"}})
    EXPECT_EQ(resolved(name), result) << name;
  catalogue.add(package("R", {""}));
  EXPECT_EQ(resolved(""), "no error | R/ | R | ");
}

TEST(BehaviorCatalogue, TellsInstalledByTheDirectoryOnDisk)
{
  const TestSupport::TemporaryDirectory directory;
  const vu::log::Capture log;
  Catalogue catalogue;
  catalogue.add(package("P", {"file", "loop", "."}, "user", directory.string()));
  EXPECT_TRUE(catalogue.isBehaviorInstalled("P"));
  EXPECT_FALSE(catalogue.isBehaviorInstalled("P/file"));
  TestSupport::writeFile(directory / "file", "a file counts, too");
  EXPECT_TRUE(catalogue.isBehaviorInstalled("P/file"));
  EXPECT_TRUE(log.lines().empty());
  std::filesystem::create_symlink("loop", directory / "loop"); // a status that fails otherwise than by absence
  EXPECT_FALSE(catalogue.isBehaviorInstalled("P/loop"));
  EXPECT_EQ(log.count(Level::Error, "symbolic links"), 1U);
}
