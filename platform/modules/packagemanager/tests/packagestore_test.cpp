#include <packagestore.hpp>

#include <sys/stat.h>

#include "packagefixture.hpp"
#include <testing/filefaults.hpp>
#include <packageerror.hpp>
#include <vu/log.hpp>

namespace fs = std::filesystem;
using TestSupport::Fault;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;
using testing::UnorderedElementsAre;

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
  write(directory / "old" / "run", "#!/bin/sh\n");
  fs::permissions(directory / "old" / "run", fs::perms(0510));
  fs::create_symlink("hello/behavior.xar", directory / "old" / "link");
  ZB::PackageStore store(root);
  EXPECT_EQ(store.stage(directory / "old", "alice", {}).info.path(), (root / "p").string());
  EXPECT_THAT(names(root), IsEmpty()) << "what was not installed has not gone";
  install("old");
  EXPECT_THAT(versions(), UnorderedElementsAre("p 1 alice"));
  EXPECT_EQ(fs::status(root / "p" / "run").permissions(), fs::perms(0754));
  EXPECT_EQ(fs::read_symlink(root / "p" / "link"), "hello/behavior.xar");
}

TEST_F(Store, directoriesWithForeignThingsAreRefused)
{
  const std::pair<std::function<void(const fs::path&)>, const char*> cases[] = {
      {[](const auto& p) { ASSERT_EQ(mkfifo((p / "pipe").c_str(), 0600), 0); }, "\"pipe\" is neither a file"},
      {[](const auto& p) { fs::create_symlink("../../old", p / "hello" / "link"); }, "the link \"hello/link\" leads out of the package"},
      {[](const auto& p) { fs::create_symlink(p / "hello", p / "link"); }, "the link \"link\" leads out of the package"},
      {[](const auto& p) { write(p / ".installer", "system"); }, ".installer"},
      {[this](const auto& p) { fs::rename(root, p / "store"), fs::create_directory_symlink(p / "store", root); },
       "holds the folder of the"},
  };
  ZB::PackageStore store(root);
  for (const auto& [add, fault] : cases)
  {
    const auto source = makePackage(std::to_string(&fault - &cases[0].second), "p");
    add(source);
    EXPECT_THAT([&] { store.stage(source, "alice", {}); }, ThrowsMessage<ZB::PackageError>(HasSubstr(fault)));
    EXPECT_THAT(names(root), IsEmpty());
  }
}

TEST_F(Store, startClearsAndRepairsWhatACrashHasLeft)
{
  install("old");
  fs::copy(root / "p", root / ".replaced-p", fs::copy_options::recursive); // the new one had arrived
  fs::copy(root / "p", root / ".replaced-q", fs::copy_options::recursive); // it had not
  write(root / ".replaced-q" / "manifest.xml", manifest("q", "7"));
  write(root / ".staging-AbCdEf" / "half", "x");
  write(root / ".removed-AbCdEf" / "half", "x");
  EXPECT_THAT(versions(), UnorderedElementsAre("p 1 alice", "q 7 alice"));
  EXPECT_THAT(names(root), UnorderedElementsAre("p", "q"));
}

/// Each change of the store, with the versions of the package before and after
/// it; an empty one is no package.
struct Change
{
  const char* name;
  const char* before;
  const char* after;
};
constexpr Change changes[] = {{"install", "", "new"}, {"replace", "old", "new"}, {"remove", "old", ""}};

class ChangedStore : public Store, public testing::WithParamInterface<Change>
{
protected:
  ChangedStore()
  {
    fs::create_symlink("hello/behavior.xar", directory / "old" / "link");
    write(directory / "new" / "more" / "file", std::string(100000, 'x'));
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
        tree.push_back(entry.path().lexically_relative(folder).string() + (entry.is_regular_file() ? ": " + read(entry) : ""));
    std::sort(tree.begin(), tree.end());
    return tree;
  }

  const Change change = GetParam();
  std::string source = change.after;
};

TEST_P(ChangedStore, killAtAnyFileOperationLeavesTheOldOrTheNewWhole)
{
  const auto before = treeOf(root / "p");
  play();
  const auto after = treeOf(root / "p");
  ASSERT_NE(before, after);
  for (const auto fault : {Fault::KillBefore, Fault::KillAfter})
    for (int operation = 1;; ++operation)
    {
      setUp();
      if (!TestSupport::isKilledAt(fault, operation, [this] { play(); }))
      {
        EXPECT_GT(operation, 3);
        break;
      }
      SCOPED_TRACE("killed " + std::string(fault == Fault::KillBefore ? "before" : "after") + " operation " + std::to_string(operation));
      (void)versions();
      EXPECT_THAT(treeOf(root / "p"), testing::AnyOf(before, after));
      EXPECT_THAT(names(root), testing::AnyOf(IsEmpty(), ElementsAre("p"))) << "the start has not cleared up";
    }
}

TEST_P(ChangedStore, fileOperationThatFailsFailsTheChangeOrIsOfNoMatter)
{
  if (source == "new")
    source = "new.zip";
  const auto before = treeOf(root / "p");
  play();
  const auto after = treeOf(root / "p");
  for (const auto fault : {Fault::Error, Fault::DiskFull})
    for (int operation = 1;; ++operation)
    {
      SCOPED_TRACE("operation " + std::to_string(operation) + (fault == Fault::DiskFull ? " finds the disk full" : " fails"));
      setUp();
      std::string failure;
      {
        const TestSupport::Injection injection(fault, operation);
        try
        {
          play();
        }
        catch (const std::exception& error)
        {
          failure = error.what();
        }
        if (!injection.happened())
        {
          EXPECT_GT(operation, 3);
          break;
        }
      }
      EXPECT_EQ(treeOf(root / "p"), failure.empty() ? after : before) << failure;
      EXPECT_THAT(failure, testing::AnyOf(IsEmpty(), HasSubstr("No space left on device"), HasSubstr("Input/output error")));
      (void)versions();
      EXPECT_THAT(names(root), testing::AnyOf(IsEmpty(), ElementsAre("p"))) << "the start has not cleared up";
      setUp();
      play();
      EXPECT_EQ(treeOf(root / "p"), after) << "the next change does not succeed";
    }
}

INSTANTIATE_TEST_SUITE_P(Store, ChangedStore, testing::ValuesIn(changes), [](const auto& info) { return std::string(info.param.name); });

TEST_F(Store, damagedPackagesAreLoggedByPlaceAndTheRestIsLoaded)
{
  install("old");
  for (const std::string name : {"noproject", "noinstaller", "impostor", "othername"})
  {
    fs::copy(root / "p", root / name, fs::copy_options::recursive);
    write(root / name / "manifest.xml", manifest(name == "othername" ? "else" : name));
  }
  fs::remove(root / "noproject" / "hello" / "behavior.xar");
  fs::remove(root / "noinstaller" / ".installer");
  write(root / "impostor" / ".installer", "system\n");
  write(root / "stray", "x");
  fs::create_directory_symlink(directory / "new", root / "link");
  const vu::log::Capture log;
  EXPECT_THAT(versions(), UnorderedElementsAre("p 1 alice"));
  for (const auto* name : {"noproject", "noinstaller", "impostor", "othername", "stray", "link"})
    EXPECT_EQ(log.count(vu::log::Level::Error, (root / name).string() + "\" is damaged"), 1U) << name;
  EXPECT_EQ(names(root).size(), 7U) << "something was deleted";
}

} // namespace
