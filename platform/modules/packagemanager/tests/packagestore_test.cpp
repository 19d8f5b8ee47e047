#include <packagestore.hpp>

#include <sys/stat.h>

#include "packagefixture.hpp"
#include <testing/filefaults.hpp>
#include <vu/log.hpp>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TestSupport::Fault;

namespace
{

class Store : public PackageFixture
{
protected:
  Store() { makePackage("old", "p", "1"), makePackage("new", "p", "2"); }

  void install(const std::string& source) const
  {
    ZB::PackageStore store(root);
    auto staged = store.stage(directory / source, "alice", {});
    store.install(staged);
  }

  /// Versions of the sound packages, after a start.
  std::vector<std::string> versions() const { return lines(ZB::PackageStore(root).load()); }

  const fs::path root = directory / "store";
};

TEST_F(Store, packageIsThereOnceInstalledWithLinksAndExecutableBits)
{
  writeFile(directory / "old" / "run", "#!/bin/sh\n");
  fs::permissions(directory / "old" / "run", fs::perms(0510));
  fs::create_symlink("hello/behavior.xar", directory / "old" / "link");
  ZB::PackageStore store(root);
  EXPECT_EQ(store.stage(directory / "old", "alice", {}).info.path(), (root / "p").string());
  EXPECT_THAT(namesIn(root), IsEmpty()) << "what was not installed has not gone";
  install("old");
  EXPECT_THAT(versions(), UnorderedElementsAre("p 1 alice"));
  EXPECT_EQ(fs::status(root / "p" / "run").permissions(), fs::perms(0754));
  EXPECT_EQ(fs::read_symlink(root / "p" / "link"), "hello/behavior.xar");
}

TEST_F(Store, everythingIsOnTheDiskBeforeThePackageMovesInAndItsNameAfterwards)
{
  const auto operations = TestSupport::operationsOf([this] { install("new"); });
  const auto moved = std::find_if(operations.begin(), operations.end(),
                                  [this](const auto& operation) { return operation.ends_with(" " + (root / "p").string()); });
  ASSERT_NE(moved, operations.end());
  const auto staging = moved->substr(moved->find('/'), moved->rfind(' ') - moved->find('/'));
  const std::vector<std::string> before(operations.begin(), moved);
  for (const auto* name : {"", "/.installer", "/manifest.xml", "/hello", "/hello/behavior.xar"})
    EXPECT_THAT(before, testing::Contains("fsync " + staging + name));
  EXPECT_NE(std::find(moved, operations.end(), "fsync " + root.string()), operations.end());
}

/// Each change of the store, with the versions of the package before and after
/// it; an empty one is no package.
struct Change
{
  const char* name;
  const char* before;
  const char* after;

  friend void PrintTo(const Change& change, std::ostream* out) { *out << change.name; }
};
constexpr Change changes[] = {{"install", "", "new"}, {"replace", "old", "new"}, {"remove", "old", ""}};

class ChangedStore : public Store, public testing::WithParamInterface<Change>
{
protected:
  ChangedStore()
  {
    fs::create_symlink("hello/behavior.xar", directory / "old" / "link");
    writeFile(directory / "new" / "more" / "file", std::string(100000, 'x'));
    ZipWriter(directory / "new.zip")
        .package(manifest("p", "2"))
        .file("more/file", std::string(100000, 'x'), 0755)
        .link("link", "more/file");
    setUp();
  }

  /// Puts the store into the state before the change.
  void setUp() const
  {
    fs::remove_all(root / "p");
    if (*change.before)
      install(change.before);
  }

  void play() const
  {
    if (*change.after)
      install(source);
    else
      ZB::PackageStore(root).remove("p");
  }

  std::vector<std::string> treeOf(const fs::path& folder) const
  {
    std::vector<std::string> tree;
    if (fs::exists(folder))
      for (const auto& entry : fs::recursive_directory_iterator(folder))
        tree.push_back(entry.path().lexically_relative(folder).string() + (entry.is_regular_file() ? ": " + readFile(entry) : ""));
    std::sort(tree.begin(), tree.end());
    return tree;
  }

  /// At each operation of the change in turn.
  void playWith(std::initializer_list<Fault> faults) const
  {
    const auto before = treeOf(root / "p");
    play();
    const auto after = treeOf(root / "p");
    ASSERT_NE(before, after);
    for (const auto fault : faults)
      for (int operation = 1;; ++operation)
      {
        SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + " at operation " + std::to_string(operation));
        setUp();
        const auto [happened, failure] = TestSupport::tryWith(fault, operation, [this] { play(); });
        if (!happened)
        {
          EXPECT_GT(operation, 3);
          break;
        }
        const bool killed = fault == Fault::KillBefore || fault == Fault::KillAfter;
        EXPECT_TRUE(killed || treeOf(root / "p") == (failure.empty() ? after : before)) << failure;
        EXPECT_THAT(failure, testing::AnyOf(IsEmpty(), HasSubstr("No space left on device"), HasSubstr("Input/output error")));
        (void)versions();
        EXPECT_THAT(treeOf(root / "p"), testing::AnyOf(before, after));
        EXPECT_THAT(namesIn(root), testing::AnyOf(IsEmpty(), ElementsAre("p"))) << "the start has not cleared up";
      }
    setUp();
    play();
    EXPECT_EQ(treeOf(root / "p"), after) << "the next change does not succeed";
  }

  const Change change = GetParam();
  std::string source = change.after;
};

TEST_P(ChangedStore, killAtAnyFileOperationLeavesTheOldOrTheNewWhole) { playWith({Fault::KillBefore, Fault::KillAfter}); }

TEST_P(ChangedStore, fileOperationThatFailsFailsTheChangeOrIsOfNoMatter)
{
  if (source == "new")
    source = "new.zip";
  playWith({Fault::Error, Fault::DiskFull});
}

INSTANTIATE_TEST_SUITE_P(Store, ChangedStore, testing::ValuesIn(changes), [](const auto& info) { return std::string(info.param.name); });

TEST_F(Store, damagedPackagesAreLoggedByPlaceAndTheRestIsLoaded)
{
  install("old");
  for (const std::string name : {"noproject", "noinstaller", "impostor", "othername"})
  {
    fs::copy(root / "p", root / name, fs::copy_options::recursive);
    writeFile(root / name / "manifest.xml", manifest(name == "othername" ? "else" : name));
  }
  fs::remove(root / "noproject" / "hello" / "behavior.xar");
  fs::remove(root / "noinstaller" / ".installer");
  writeFile(root / "impostor" / ".installer", "system\n");
  writeFile(root / "stray", "x");
  fs::create_directory_symlink(directory / "new", root / "link");
  const vu::log::Capture log;
  EXPECT_THAT(versions(), UnorderedElementsAre("p 1 alice"));
  for (const auto* name : {"noproject", "noinstaller", "impostor", "othername", "stray", "link"})
    EXPECT_EQ(log.count(vu::log::Level::Error, (root / name).string() + "\" is damaged"), 1U) << name;
  EXPECT_EQ(namesIn(root).size(), 7U) << "something was deleted";
}

} // namespace
