#include <common/durablefile.hpp>

#include <csignal>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace
{

class DurableFile : public testing::Test
{
protected:
  DurableFile()
  {
    auto name = (fs::path(testing::TempDir()) / "durablefile-XXXXXX").string();
    directory = mkdtemp(name.data());
  }
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

/// While one exists, no file of this process grows beyond `bytes`.
class FileSizeLimit
{
public:
  explicit FileSizeLimit(rlim_t bytes) : _handler(std::signal(SIGXFSZ, SIG_IGN))
  {
    getrlimit(RLIMIT_FSIZE, &_previous);
    const rlimit limit{bytes, _previous.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit()
  {
    setrlimit(RLIMIT_FSIZE, &_previous);
    std::signal(SIGXFSZ, _handler);
  }

private:
  void (*_handler)(int);
  rlimit _previous{};
};

TEST_F(DurableFile, writeReplacesTheWholeContent)
{
  const auto file = directory / "file";
  for (const std::string& content : {std::string("a long first content"), std::string("short"), std::string(), std::string(100000, 'x')})
  {
    common::writeFileDurably(file, content);
    EXPECT_EQ(common::readFile(file), content);
  }
  EXPECT_THAT(names(), testing::ElementsAre("file"));
}

TEST_F(DurableFile, writeThatFailsLeavesTheOldContentAndNothingElse)
{
  const auto file = directory / "file";
  common::writeFileDurably(file, "old");
  {
    const FileSizeLimit limit(1000);
    try
    {
      common::writeFileDurably(file, std::string(2000, 'x'));
      ADD_FAILURE() << "the disk took more than the limit";
    }
    catch (const fs::filesystem_error& error)
    {
      EXPECT_THAT(error.path1().string(), testing::HasSubstr(directory.string()));
    }
  }
  EXPECT_EQ(common::readFile(file), "old");
  EXPECT_THAT(names(), testing::ElementsAre("file"));
}

TEST_F(DurableFile, writeToAPlaceThatCannotTakeAFileIsAnErrorAndLeavesNothing)
{
  fs::create_directories(directory / "folder");
  EXPECT_THROW(common::writeFileDurably(directory / "folder", "content"), fs::filesystem_error);
  EXPECT_THROW(common::writeFileDurably(directory / "missing" / "file", "content"), fs::filesystem_error);
  EXPECT_THAT(names(), testing::ElementsAre("folder"));
}

TEST_F(DurableFile, readRefusesWhatIsNoFileOrTooLong)
{
  std::ofstream(directory / "file") << "0123456789";
  EXPECT_EQ(common::readFile(directory / "file", 10), "0123456789");
  EXPECT_THROW(common::readFile(directory / "file", 9), fs::filesystem_error);
  EXPECT_THROW(common::readFile(directory), fs::filesystem_error);
  EXPECT_THROW(common::readFile(directory / "missing"), fs::filesystem_error);
  ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(common::readFile(directory / "pipe"), "");
}

TEST_F(DurableFile, leftOverTemporariesAreRemovedAndNothingElse)
{
  for (const auto* name : {".file.a1b2c3.writing", ".other.XYZXYZ.writing", ".hidden", "a.writing"})
    std::ofstream(directory / name) << "x";
  EXPECT_EQ(common::removeTemporaryFiles(directory), 2U);
  EXPECT_THAT(names(), testing::UnorderedElementsAre(".hidden", "a.writing"));
}

TEST_F(DurableFile, removeTellsWhetherThereWasAFile)
{
  std::ofstream(directory / "file") << "x";
  EXPECT_TRUE(common::removeFileDurably(directory / "file"));
  EXPECT_FALSE(common::removeFileDurably(directory / "file"));
  EXPECT_THROW(common::removeFileDurably(directory), fs::filesystem_error);
}

} // namespace
