#include <packagestore.hpp>

#include <csignal>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packagefixture.hpp"
#include <packageerror.hpp>
#include <vu/log.hpp>

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

namespace
{

class Store : public PackageFixture
{
protected:
  Store() { makePackage("old", "p", "1"), makePackage("new", "p", "2"); }

  void install(ZB::PackageStore& store, const std::string& source) const
  {
    auto staged = store.stage(directory / source, "alice", {});
    store.install(staged);
  }

  /// Versions of the sound packages, after a start.
  std::vector<std::string> versionsAfterRestart() const
  {
    std::vector<std::string> versions;
    for (const auto& package : ZB::PackageStore(root).load())
      versions.push_back(package.uuid() + " " + package.version() + " " + package.installer());
    return versions;
  }

  const fs::path root = directory / "store";
  vu::log::Capture log;
};

TEST_F(Store, stagedPackageIsNotThereUntilItIsInstalled)
{
  ZB::PackageStore store(root);
  {
    const auto staged = store.stage(directory / "old", "alice", {});
    EXPECT_EQ(staged.info.path(), (root / "p").string());
    EXPECT_THAT(store.load(), testing::IsEmpty());
  }
  EXPECT_THAT(names(root), testing::IsEmpty()) << "what was not installed has not gone";
  install(store, "old");
  EXPECT_THAT(versionsAfterRestart(), UnorderedElementsAre("p 1 alice"));
  install(store, "new");
  EXPECT_THAT(versionsAfterRestart(), UnorderedElementsAre("p 2 alice"));
  EXPECT_THAT(names(root), UnorderedElementsAre("p"));
  EXPECT_EQ(read(root / "p" / ".installer"), "alice\n");
  store.remove("p");
  EXPECT_THAT(names(root), testing::IsEmpty());
}

TEST_F(Store, directoryIsCopiedWithLinksAndExecutableBits)
{
  const auto source = directory / "old";
  write(source / "bin" / "run", "#!/bin/sh\n");
  fs::permissions(source / "bin" / "run", fs::perms(0510));
  fs::create_symlink("../hello", source / "bin" / "link");
  fs::create_directory_symlink(source, directory / "alias");
  ZB::PackageStore store(root);
  auto staged = store.stage(directory / "alias" / "", "alice", {});
  store.install(staged);
  EXPECT_EQ(fs::status(root / "p" / "bin" / "run").permissions(), fs::perms(0754));
  EXPECT_EQ(fs::read_symlink(root / "p" / "bin" / "link"), "../hello");
  EXPECT_EQ(fs::status(root / "p").permissions(), fs::perms(0755));
}

TEST_F(Store, directoriesWithForeignThingsAreRefused)
{
  const struct
  {
    const char* what;
    std::function<void(const fs::path&)> add;
    const char* fault;
  } cases[] = {
      {"pipe", [](const auto& p) { ASSERT_EQ(mkfifo((p / "pipe").c_str(), 0600), 0); }, "\"pipe\" is neither a file"},
      {"link out", [](const auto& p) { fs::create_symlink("../../old", p / "hello" / "link"); },
       "the link \"hello/link\" leads out of the package"},
      {"link by its own absolute path", [](const auto& p) { fs::create_symlink(p / "hello", p / "link"); },
       "the link \"link\" leads out of the package"},
      {"installer", [](const auto& p) { write(p / ".installer", "system"); }, ".installer"},
  };
  ZB::PackageStore store(root);
  for (const auto& [what, add, fault] : cases)
  {
    SCOPED_TRACE(what);
    const auto source = makePackage(what, "p");
    add(source);
    EXPECT_THAT(errorOf<ZB::PackageError>([&] { store.stage(source, "alice", {}); }), HasSubstr(fault));
    EXPECT_THAT(errorOf<ZB::PackageError>([&] { store.inspect(source, {}); }), HasSubstr(fault));
    EXPECT_THAT(names(root), testing::IsEmpty());
  }
}

TEST_F(Store, directoryThatHoldsTheStoreIsRefused)
{
  makePackage(".", "everything");
  ZB::PackageStore store(root);
  EXPECT_THAT(errorOf<ZB::PackageError>([&] { store.stage(directory, "alice", {}); }),
              HasSubstr("holds the folder of the installed packages"));
  EXPECT_THAT(names(root), testing::IsEmpty());
}

TEST_F(Store, fullDiskLeavesNothingBehind)
{
  write(directory / "new" / "large", std::string(20000, 'x'));
  ZipWriter(directory / "new.zip").package(manifest("p", "2")).file("large", std::string(20000, 'x'));
  ZB::PackageStore store(root);
  install(store, "old");
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit small{10000, previous.rlim_max};
  auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  for (const auto* source : {"new", "new.zip"})
    EXPECT_THROW(store.stage(directory / source, "alice", {}), fs::filesystem_error) << source;
  setrlimit(RLIMIT_FSIZE, &previous);
  std::signal(SIGXFSZ, handler);
  EXPECT_THAT(names(root), UnorderedElementsAre("p"));
}

TEST_F(Store, failedReplacementLeavesTheOldPackageWhole)
{
  ZB::PackageStore store(root);
  install(store, "old");
  {
    SCOPED_TRACE("the old one cannot move aside");
    auto staged = store.stage(directory / "new", "bob", {});
    write(root / ".replaced-p" / "obstacle", "x");
    EXPECT_THROW(store.install(staged), fs::filesystem_error);
    fs::remove_all(root / ".replaced-p");
  }
  {
    SCOPED_TRACE("the new one cannot move in");
    auto staged = store.stage(directory / "new", "bob", {});
    fs::remove_all(staged.folder.path());
    EXPECT_THROW(store.install(staged), fs::filesystem_error);
  }
  EXPECT_THAT(names(root), UnorderedElementsAre("p"));
  EXPECT_THAT(versionsAfterRestart(), UnorderedElementsAre("p 1 alice"));
}

TEST_F(Store, startClearsAndRepairsWhatACrashHasLeft)
{
  {
    ZB::PackageStore store(root);
    install(store, "old");
  }
  fs::copy(root / "p", root / ".replaced-p", fs::copy_options::recursive); // the new one had arrived
  fs::copy(root / "p", root / ".replaced-q", fs::copy_options::recursive); // it had not
  write(root / ".replaced-q" / "manifest.xml", manifest("q", "7"));
  write(root / ".staging-AbCdEf" / "half", "x");
  write(root / ".removed-AbCdEf" / "half", "x");
  EXPECT_THAT(versionsAfterRestart(), UnorderedElementsAre("p 1 alice", "q 7 alice"));
  EXPECT_THAT(names(root), UnorderedElementsAre("p", "q"));
}

/// Ends a process at whatever point of a replacement it has reached.
TEST_F(Store, killedProcessLeavesTheOldOrTheNewPackageWhole)
{
  for (int round = 0; round < 12; ++round)
  {
    SCOPED_TRACE(round);
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const auto child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
    {
      ZB::PackageStore store(root);
      install(store, "old");
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
    EXPECT_THAT(versionsAfterRestart(), testing::ElementsAre(testing::AnyOf("p 1 alice", "p 2 alice")));
    EXPECT_THAT(names(root), UnorderedElementsAre("p"));
    EXPECT_EQ(names(root / "p").size(), 3U);
  }
}

TEST_F(Store, damagedPackagesAreLoggedByPlaceAndTheRestIsLoaded)
{
  {
    ZB::PackageStore store(root);
    install(store, "old");
  }
  const auto damage = [this](const std::string& name)
  {
    fs::copy(root / "p", root / name, fs::copy_options::recursive);
    write(root / name / "manifest.xml", manifest(name));
    return root / name;
  };
  write(damage("nomanifest") / "manifest.xml", "<package");
  fs::remove(damage("noproject") / "hello" / "behavior.xar");
  fs::remove(damage("noinstaller") / ".installer");
  write(damage("impostor") / ".installer", "system\n");
  write(damage("othername") / "manifest.xml", manifest("else"));
  write(root / "stray", "x");
  fs::create_directory_symlink(directory / "new", root / "link");
  EXPECT_THAT(versionsAfterRestart(), UnorderedElementsAre("p 1 alice"));
  for (const auto* name : {"nomanifest", "noproject", "noinstaller", "impostor", "othername", "stray", "link"})
    EXPECT_EQ(log.count(vu::log::Level::Error, (root / name).string() + "\" is damaged"), 1U) << name;
  EXPECT_EQ(names(root).size(), 8U) << "something was deleted";
}

} // namespace
