#include <packagestore.hpp>

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "packagefixture.hpp"
#include <packageerror.hpp>
#include <vu/log.hpp>

namespace fs = std::filesystem;
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

TEST_F(Store, failedReplacementLeavesTheOldPackageWhole)
{
  install("old");
  ZB::PackageStore store(root);
  for (const bool movesAside : {false, true})
  {
    auto staged = store.stage(directory / "new", "bob", {});
    movesAside ? (void)fs::remove_all(staged.folder.path()) : write(root / ".replaced-p" / "obstacle", "x");
    EXPECT_THROW(store.install(staged), fs::filesystem_error);
    fs::remove_all(root / ".replaced-p");
  }
  EXPECT_THAT(names(root), UnorderedElementsAre("p"));
  EXPECT_THAT(versions(), UnorderedElementsAre("p 1 alice"));
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

/// Ends a process at whatever point of a replacement it has reached.
TEST_F(Store, killedProcessLeavesTheOldOrTheNewPackageWhole)
{
  for (int round = 0; round < 12; ++round)
  {
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    install("old");
    const auto child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
      ZB::PackageStore store(root);
      for (bool old = false;; old = !old)
      {
        auto staged = store.stage(directory / (old ? "old" : "new"), "alice", {});
        if (::write(channel[1], "x", 1) != 1) // the change itself begins
          ::_exit(1);
        store.install(staged);
      }
    }
    ::close(channel[1]);
    char byte = 0;
    for (int change = 0; change <= round % 3; ++change)
      EXPECT_EQ(::read(channel[0], &byte, 1), 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(channel[0]);
    EXPECT_THAT(versions(), testing::ElementsAre(testing::AnyOf("p 1 alice", "p 2 alice")));
    EXPECT_THAT(names(root), UnorderedElementsAre("p"));
    EXPECT_EQ(names(root / "p").size(), 3U);
  }
}

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
