#include <storage/durablefile.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <testing/filefaults.hpp>
#include <testing/files.hpp>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::StartsWith;
using TestSupport::Fault;
using TestSupport::namesIn;
using TestSupport::writeFile;

namespace
{

class DurableFile : public testing::Test
{
protected:
  const TestSupport::TemporaryDirectory directory;
  const fs::path file = directory / "file";
};

TEST_F(DurableFile, killOrFaultAtAnyFileOperationLeavesTheOldOrTheNewContentWhole)
{
  const std::string after(100000, 'x');
  const std::function<void()> replace = [&] { storage::writeFileDurably(file, after); };
  const std::function<void()> remove = [&] { storage::removeFileDurably(file); };
  for (const auto& [change, changed] : {std::pair(replace, after), {remove, std::string()}})
    for (const auto fault : {Fault::KillBefore, Fault::KillAfter, Fault::Error, Fault::DiskFull})
      for (int operation = 1;; ++operation)
      {
        SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + " at operation " + std::to_string(operation));
        storage::writeFileDurably(file, "old");
        const auto [met, failure] = TestSupport::tryWith(fault, operation, change);
        EXPECT_TRUE(met || failure.empty()) << failure;
        EXPECT_THAT(TestSupport::readFile(file), testing::AnyOf("old", changed));
        if (fault == Fault::KillBefore || fault == Fault::KillAfter)
          storage::removeTemporaryFiles(directory);
        EXPECT_LE(namesIn(directory).size(), 1U) << "a temporary file is left";
        change();
        EXPECT_EQ(TestSupport::readFile(file), changed);
        if (!met)
        {
          EXPECT_GT(operation, 2);
          break;
        }
      }
}

TEST_F(DurableFile, contentIsOnTheDiskBeforeItsNameAndTheNameBeforeTheReturn)
{
  const auto temporary = directory.string() + "/.file.";
  const auto onDisk = "fsync " + directory.string();
  EXPECT_THAT(TestSupport::operationsOf([this] { storage::writeFileDurably(file, "new"); }),
              ElementsAre("mkostemps ", StartsWith("write " + temporary), StartsWith("fsync " + temporary),
                          testing::AllOf(StartsWith("rename " + temporary), testing::EndsWith(" " + file.string())), onDisk));
  EXPECT_THAT(TestSupport::operationsOf([this] { storage::removeFileDurably(file); }), ElementsAre("unlink " + file.string(), onDisk));
}

TEST_F(DurableFile, whatIsNoFileOrTooLongIsRefusedAndNothingIsLeft)
{
  writeFile(file, "0123456789");
  fs::create_directory(directory / "folder");
  EXPECT_EQ(storage::readFile(file, 10), "0123456789");
  EXPECT_THROW(storage::readFile(file, 9), fs::filesystem_error);
  for (const auto& wrong : {directory / "folder", directory / "missing" / "file"})
  {
    EXPECT_THROW(storage::readFile(wrong), fs::filesystem_error);
    EXPECT_THROW(storage::writeFileDurably(wrong, "content"), fs::filesystem_error);
  }
  EXPECT_THROW(storage::removeFileDurably(directory / "folder"), fs::filesystem_error);
  EXPECT_FALSE(storage::removeFileDurably(directory / "missing"));
  EXPECT_THAT(namesIn(directory), ElementsAre("file", "folder"));
}

TEST_F(DurableFile, leftOverTemporariesAreRemovedAndNothingElse)
{
  for (const auto* name : {".file.a1b2c3.writing", ".other.XYZXYZ.writing", ".hidden", "a.writing"})
    writeFile(directory / name, "x");
  EXPECT_EQ(storage::removeTemporaryFiles(directory), 2U);
  EXPECT_THAT(namesIn(directory), ElementsAre(".hidden", "a.writing"));
}

} // namespace
