#include <common/durablefile.hpp>

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <testing/filefaults.hpp>

namespace fs = std::filesystem;
using TestSupport::Fault;
using testing::UnorderedElementsAre;

namespace
{

class DurableFile : public testing::Test
{
protected:
  DurableFile() { directory = mkdtemp((testing::TempDir() + "durablefile-XXXXXX").data()); }
  ~DurableFile() override { fs::remove_all(directory); }

  std::vector<std::string> names() const
  {
    std::vector<std::string> result;
    for (const auto& entry : fs::directory_iterator(directory))
      result.push_back(entry.path().filename().string());
    return result;
  }

  fs::path directory;
};

TEST_F(DurableFile, writeReplacesTheWholeContent)
{
  const auto file = directory / "file";
  for (const std::string& content : {std::string("a long first content"), std::string(), std::string(100000, 'x'), std::string("short")})
  {
    common::writeFileDurably(file, content);
    EXPECT_EQ(common::readFile(file), content);
  }
  EXPECT_THAT(names(), UnorderedElementsAre("file"));
}

TEST_F(DurableFile, writeThatFailsLeavesTheOldContentAndNothingElse)
{
  common::writeFileDurably(directory / "file", "old");
  fs::create_directory(directory / "folder");
  EXPECT_THROW(common::writeFileDurably(directory / "folder", "content"), fs::filesystem_error);
  EXPECT_THROW(common::writeFileDurably(directory / "missing" / "file", "content"), fs::filesystem_error);
  EXPECT_EQ(common::readFile(directory / "file"), "old");
  EXPECT_THAT(names(), UnorderedElementsAre("file", "folder"));
}

/// Whether there was an operation for the fault to happen at.
bool happens(Fault fault, int operation, const std::function<void()>& change)
{
  if (fault == Fault::KillBefore || fault == Fault::KillAfter)
    return TestSupport::isKilledAt(fault, operation, change);
  const TestSupport::Injection injection(fault, operation);
  try
  {
    change();
  }
  catch (const fs::filesystem_error&)
  {
    EXPECT_TRUE(injection.happened());
  }
  return injection.happened();
}

TEST_F(DurableFile, killOrFaultAtAnyFileOperationLeavesTheOldOrTheNewContentWhole)
{
  const auto file = directory / "file";
  const std::string after(100000, 'x');
  const auto content = [&file] { return fs::exists(file) ? common::readFile(file) : ""; };
  const std::function<void()> replace = [&] { common::writeFileDurably(file, after); };
  const std::function<void()> remove = [&] { common::removeFileDurably(file); };
  for (const auto& [change, changed] : {std::pair(replace, after), {remove, std::string()}})
    for (const auto fault : {Fault::KillBefore, Fault::KillAfter, Fault::Error, Fault::DiskFull})
      for (int operation = 1;; ++operation)
      {
        SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + " at operation " + std::to_string(operation));
        common::writeFileDurably(file, "old");
        const bool met = happens(fault, operation, change);
        EXPECT_THAT(content(), testing::AnyOf("old", changed));
        if (fault == Fault::KillBefore || fault == Fault::KillAfter)
          common::removeTemporaryFiles(directory);
        EXPECT_LE(names().size(), 1U) << "a temporary file is left";
        change();
        EXPECT_EQ(content(), changed);
        if (!met)
        {
          EXPECT_GT(operation, 2);
          break;
        }
      }
}

TEST_F(DurableFile, readRefusesWhatIsNoFileOrTooLong)
{
  std::ofstream(directory / "file") << "0123456789";
  EXPECT_EQ(common::readFile(directory / "file", 10), "0123456789");
  EXPECT_THROW(common::readFile(directory / "file", 9), fs::filesystem_error);
  EXPECT_THROW(common::readFile(directory), fs::filesystem_error);
  EXPECT_THROW(common::readFile(directory / "missing"), fs::filesystem_error);
}

TEST_F(DurableFile, leftOverTemporariesAreRemovedAndNothingElse)
{
  for (const auto* name : {".file.a1b2c3.writing", ".other.XYZXYZ.writing", ".hidden", "a.writing"})
    std::ofstream(directory / name) << "x";
  EXPECT_EQ(common::removeTemporaryFiles(directory), 2U);
  EXPECT_THAT(names(), UnorderedElementsAre(".hidden", "a.writing"));
}

TEST_F(DurableFile, removeTellsWhetherThereWasAFile)
{
  std::ofstream(directory / "file") << "x";
  EXPECT_TRUE(common::removeFileDurably(directory / "file"));
  EXPECT_FALSE(common::removeFileDurably(directory / "file"));
  EXPECT_THROW(common::removeFileDurably(directory), fs::filesystem_error);
}

} // namespace
