#include "fixture.hpp"

#include <array>
#include <csignal>
#include <latch>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <host/watchdog.hpp>

using namespace std::chrono_literals;
using namespace HostTest;

TEST(Watchdog, FallsSilentWhileThePoolIsStuckAndComesBack)
{
  boost::asio::io_context io;
  const auto pool = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{1, 1, 64, 1s});
  int signs = 0;
  const auto probe = [&pool](const std::function<void()>& done) { pool->post(done); };
  Tarvik::Watchdog watchdog(io, 4ms, probe, [&signs] { ++signs; });
  const auto more = [&](int wanted)
  {
    return eventually(
        [&]
        {
          io.run_one();
          return signs >= wanted;
        });
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
  io.run_one(); // a sign of the progress before may still come
  const int before = signs;
  for (int i = 0; i < 10; ++i)
    io.run_one();
  EXPECT_EQ(signs, before);
  goOn.count_down();
  EXPECT_TRUE(more(before + 3));
  pool->close();
}

using Notify = RootFixture;

TEST_F(Notify, TheServiceManagerHearsOfTheStartOfLifeAndOfTheEnd)
{
  const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  const auto path = (root / "notify").string();
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  Process daemon(arguments(), {{"NOTIFY_SOCKET", path}, {"WATCHDOG_USEC", "100000"}});
  const auto hear = [listener]
  {
    std::array<char, 256> text{};
    pollfd poll{listener, POLLIN, 0};
    const auto size =
        ::poll(&poll, 1, static_cast<int>(TestSupport::patience / 1ms)) == 1 ? ::recv(listener, text.data(), text.size(), 0) : 0;
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  };
  EXPECT_EQ(hear(), "READY=1");
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(hear(), "WATCHDOG=1");
  daemon.signal(SIGTERM);
  auto last = hear();
  while (last == "WATCHDOG=1")
    last = hear();
  EXPECT_EQ(last, "STOPPING=1\nEXTEND_TIMEOUT_USEC=12000000") << "the grace of programs, and ten seconds";
  EXPECT_EQ(daemon.waitForEnd(), 0) << daemon.error();
  ::close(listener);
}
