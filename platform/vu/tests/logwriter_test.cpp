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

  /// Reads until each of the lines has come, or has been told to be missing, in
  /// its place; gives how many have come.
  int readAll(int sent) const
  {
    std::string text;
    int next = 0;
    int written = 0;
    for (char byte = 0; next < sent && ::read(_ends[0], &byte, 1) == 1;)
      if (byte != '\n')
        text += byte;
      else
      {
        const auto number = std::stoi(text);
        const bool missing = text.ends_with(" left out");
        EXPECT_TRUE(missing || number == next) << text << " comes in the place of " << next;
        next += missing ? number : 1;
        written += missing ? 0 : 1;
        text.clear();
      }
    return written;
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
  const auto missing = static_cast<int>(leftOut);
  EXPECT_GT(missing, 0);
  EXPECT_EQ(readAll(sent), sent - missing);
  writer.push("0\n");
  EXPECT_EQ(readAll(1), 1) << "what comes later is written again";
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
  EXPECT_EQ(readAll(1000), 1000 - static_cast<int>(leftOut)) << "written when the reader goes on after all";
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
