#include <array>
#include <latch>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <host/watchdog.hpp>

#include "daemon.hpp"
#include "fixture.hpp"

using namespace std::chrono_literals;
using testing::HasSubstr;

TEST(Watchdog, FallsSilentWhileThePoolIsStuckAndComesBack)
{
  boost::asio::io_context io;
  const auto pool = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{1, 1, 64, 1s});
  int signs = 0;
  Tarvik::Watchdog watchdog(io, pool, 4ms, [&signs] { ++signs; });
  const auto more = [&](int wanted)
  {
    for (const auto end = std::chrono::steady_clock::now() + 10s; signs < wanted && std::chrono::steady_clock::now() < end;)
      io.run_one_for(100ms);
    return signs >= wanted;
  };
  EXPECT_TRUE(more(5));

  std::latch stuck(1);
  std::latch goOn(1);
  pool->post(
      [&]
      {
        stuck.count_down();
        goOn.wait();
      });
  stuck.wait();
  io.run_for(20ms); // a sign of the progress before may still come
  const int before = signs;
  io.run_for(50ms);
  EXPECT_EQ(signs, before);
  goOn.count_down();
  EXPECT_TRUE(more(before + 3));
  pool->close();
}

class Notify : public HostTest::RootFixture
{
};

TEST_F(Notify, TheServiceManagerHearsOfTheStartOfLifeAndOfTheEnd)
{
  const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  const auto path = (root / "notify").string();
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  ::setenv("WATCHDOG_USEC", "100000", 1);
  HostTest::Daemon daemon({"--root", (root / "root").string(), "--listen", "127.0.0.1:0"});
  ::unsetenv("NOTIFY_SOCKET");
  ::unsetenv("WATCHDOG_USEC");
  const auto hear = [listener]
  {
    std::array<char, 256> text{};
    pollfd poll{listener, POLLIN, 0};
    const auto size = ::poll(&poll, 1, HostTest::patienceMs) == 1 ? ::recv(listener, text.data(), text.size(), 0) : 0;
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  };
  EXPECT_EQ(hear(), "READY=1");
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(hear(), "WATCHDOG=1");
  daemon.signal(SIGTERM);
  auto last = hear();
  while (last == "WATCHDOG=1")
    last = hear();
  EXPECT_EQ(last, "STOPPING=1");
  EXPECT_EQ(daemon.wait(), 0) << daemon.errorText;
  ::close(listener);
}
