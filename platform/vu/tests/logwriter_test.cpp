#include <csignal>
#include <latch>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <logwriter.hpp>
#include <testing/waiting.hpp>

namespace vu::log
{

class LogWriterTest : public testing::Test
{
protected:
  LogWriterTest()
  {
    EXPECT_EQ(::pipe(_ends), 0);
    ::fcntl(_ends[1], F_SETPIPE_SZ, 4096);
  }
  ~LogWriterTest() override { ::close(_ends[0]), ::close(_ends[1]); }

  static std::string line(int number) { return std::to_string(number) + std::string(99, '.') + "\n"; }
  static std::string notice(std::uint64_t lines) { return std::to_string(lines) + " left out\n"; }

  /// What the reader gets once it goes on, up to `end`.
  std::vector<std::string> readUpTo(const std::string& end) const
  {
    std::vector<std::string> lines(1);
    char byte = 0;
    while (::read(_ends[0], &byte, 1) == 1)
      if (byte != '\n')
        lines.back() += byte == '.' ? "" : std::string(1, byte);
      else if (lines.back() == end)
        return lines;
      else
        lines.emplace_back();
    return lines;
  }

  int _ends[2] = {};
  std::atomic<std::uint64_t> leftOut{0};
};

TEST_F(LogWriterTest, AReaderWhoStandsStillHoldsUpNobodyAndHearsInOrderWhatIsMissing)
{
  constexpr int sent = 1000;
  LogWriter writer(_ends[1], {100, 1 << 20}, notice, leftOut);
  for (int i = 0; i < sent; ++i) // the pipe takes forty
    writer.push(line(i));
  EXPECT_FALSE(writer.flush(std::chrono::milliseconds(1)));
  const auto missing = leftOut.load();
  EXPECT_GT(missing, 0U);
  const auto lines = readUpTo(std::to_string(missing) + " left out");
  ASSERT_EQ(lines.size(), sent - missing + 1) << "each line is written or counted";
  for (std::size_t i = 0; i + 1 < lines.size(); ++i)
    EXPECT_EQ(lines[i], std::to_string(i));
  writer.push(line(sent));
  EXPECT_EQ(readUpTo(std::to_string(sent)).size(), 1U) << "and what comes later is written again";
  EXPECT_TRUE(writer.flush(TestSupport::patience));
}

TEST_F(LogWriterTest, ABoundOfBytesHoldsTooAndAnEndDoesNotWaitForTheReader)
{
  {
    LogWriter writer(_ends[1], {1000, 5000}, notice, leftOut);
    for (int i = 0; i < 1000; ++i)
      writer.push(line(i));
    EXPECT_GE(leftOut, 1000U - 3 * 50) << "in the pipe, with the writer and in the queue";
  }
  EXPECT_EQ(readUpTo(std::to_string(leftOut) + " left out").size(), 1001 - leftOut) << "written when the reader goes on after all";
}

TEST_F(LogWriterTest, LinesThatNobodyCanReadAreCounted)
{
  ::signal(SIGPIPE, SIG_IGN);
  ::close(_ends[0]);
  LogWriter writer(_ends[1], {}, notice, leftOut);
  for (int i = 0; i < 10; ++i)
    writer.push(line(i));
  EXPECT_TRUE(writer.flush(TestSupport::patience));
  EXPECT_EQ(leftOut, 10U);
  ::signal(SIGPIPE, SIG_DFL);
}

} // namespace vu::log
