#include "fixture.hpp"

#include <future>

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <testing/sanitized.hpp>
#include <vu/log.hpp>

using namespace GatewayTest;
using std::chrono::milliseconds;

namespace
{

/// Sets how many files this process may have open; gives what was before.
rlim_t limitFiles(rlim_t most)
{
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const auto before = std::exchange(files.rlim_cur, std::min(most, files.rlim_max));
  setrlimit(RLIMIT_NOFILE, &files);
  return before;
}

class Bounds : public GatewayFixture
{
protected:
  using Socket = asio::ip::tcp::socket;

  /// One that has been served and waits for its next request.
  Socket idle(const std::string& target = "/Bench/")
  {
    auto socket = connect();
    EXPECT_EQ(ask(socket, request("GET " + target)).status, 200U);
    return socket;
  }
  /// One whose call is open.
  Socket busy(const std::string& key)
  {
    auto socket = connect();
    asio::write(socket, asio::buffer(request("POST /rpc", {}, call("Bench.later", "[\"" + key + "\"]"))));
    EXPECT_TRUE(bench->waitForLater(key));
    return socket;
  }
  Answer ask(Socket& socket, const std::string& text)
  {
    asio::write(socket, asio::buffer(text));
    return receive(socket);
  }
  static bool hasEnded(Socket& socket)
  {
    char byte = 0;
    boost::system::error_code error;
    asio::read(socket, asio::buffer(&byte, 1), error);
    return error.failed();
  }
};

TEST_F(Bounds, RequestThatDoesNotComeInTimeIsToldSoAndSilenceIsEnded)
{
  options.limits.header = options.limits.body = milliseconds(300);
  options.limits.idle = milliseconds(600);
  options.upload = [](auto&, auto&, auto&) { return nullptr; };
  options.uploadDirectory = testing::TempDir();
  begin();
  const auto whole = request("GET /healthz");
  EXPECT_EQ(raw("GET / HT").status, 408U);
  EXPECT_EQ(raw(request("POST /rpc", {{"Content-Length", "10"}}) + "half").status, 408U);
  EXPECT_EQ(raw(request("POST /packages", {{"Content-Length", "10"}}) + "half").status, 408U);
  auto served = idle();
  EXPECT_EQ(ask(served, whole.substr(0, 9)).status, 408U) << "nor does a second request wait for ever";
  auto patient = idle();
  EXPECT_TRUE(hasEnded(patient));
  auto silent = connect();
  EXPECT_TRUE(hasEnded(silent));
}

TEST_F(Bounds, FiveHundredIdleConnectionsKeepNoNewOneOut)
{
  limitFiles(4096);
  options.limits.connections = 500;
  options.limits.connectionsPerPeer = options.limits.connectionsPerToken = 1000;
  begin();
  auto working = busy("k");
  std::vector<Socket> idles;
  for (int i = 0; i < 499; ++i)
    idles.push_back(idle());
  EXPECT_EQ(get("/Bench/").status, 200U);
  EXPECT_TRUE(hasEnded(idles.front())) << "the one that was idle longest";
  EXPECT_EQ(ask(idles.back(), request("GET /healthz")).status, 200U);
  bench->finishLater("k", 7);
  EXPECT_EQ(vu::Value::parse(receive(working).body)["result"], 7) << "a call under way is not idle";
}

TEST_F(Bounds, WithoutFilesTheLongestIdleMakesRoomAndItAcceptsAgain)
{
  if (TestSupport::sanitized)
    GTEST_SKIP() << "a sanitizer opens files of its own for its checks";
  options.limits.idle = std::chrono::hours(1); // it does not go for that reason
  begin();
  auto longest = idle("/healthz");
  auto late = Socket(io, asio::ip::tcp::v4());
  const int free = ::dup(0);
  ::close(free);
  const auto before = limitFiles(static_cast<rlim_t>(free));
  late.connect(longest.remote_endpoint());
  pollfd end{longest.native_handle(), POLLIN, 0};
  ASSERT_EQ(::poll(&end, 1, static_cast<int>(milliseconds(TestSupport::patience).count())), 1);
  EXPECT_TRUE(hasEnded(longest));
  EXPECT_EQ(ask(late, request("GET /healthz")).status, 200U);
  limitFiles(before);
  EXPECT_EQ(get("/healthz").status, 200U);
}

TEST_F(Bounds, ClientsLeaveFilesFreeForWorkAndAreRefusedBefore)
{
  constexpr rlim_t files = 600;
  const auto before = limitFiles(files);
  begin();
  std::vector<Socket> clients;
  for (bool room = true; room && clients.size() < files / 2;)
  {
    clients.push_back(connect());
    room = ask(clients.back(), request("GET /healthz")).status == 200U;
    const auto key = std::to_string(clients.size());
    if (room) // and does not let it go
    {
      asio::write(clients.back(), asio::buffer(request("POST /rpc", {}, call("Bench.later", "[\"" + key + "\"]"))));
      EXPECT_TRUE(bench->waitForLater(key));
    }
  }
  EXPECT_GT(clients.size(), 100U);
  std::vector<int> opened;
  for (int file = 0; (file = ::dup(0)) >= 0;)
    opened.push_back(file);
  limitFiles(before);
  EXPECT_GT(opened.size(), 200U);
  for (const int file : opened)
    ::close(file);
}

TEST_F(Bounds, AddressesOfVersionSixAreWrittenInBrackets)
{
  options.address = "::1";
  begin();
  EXPECT_EQ(url, "http://[::1]:" + port);
  vu::log::Capture log;
  EXPECT_EQ(get("/Bench/?eval=Bench.add(1,2)", {{"Host", "[::1]:" + port}}).body, "3");
  EXPECT_EQ(log.count(vu::log::Level::Info, "Bench.add(1, 2) from [::1]:"), 1U);
  EXPECT_EQ(vu::RemoteSession(remote()).service("Bench").value().call<int>("add", 2, 3), 5);
  options.address = "::";
  options.insecure = true;
  EXPECT_TRUE(Tarvik::Gateway(options).listen().starts_with("http://[::1]:"));
}

TEST_F(Bounds, ConnectionsInUseAreBoundInAllAndForEachAddress)
{
  options.limits.connections = 3;
  options.limits.connectionsPerPeer = 2;
  begin();
  const auto from = [this](const char* address)
  {
    Socket socket(io);
    socket.open(asio::ip::tcp::v4());
    socket.bind({asio::ip::make_address(address), 0});
    socket.connect({asio::ip::make_address("127.0.0.1"), static_cast<std::uint16_t>(std::stoi(port))});
    return socket;
  };
  auto first = busy("1");
  auto waiting = idle();
  EXPECT_EQ(get("/Bench/").status, 200U) << "in the place of this address's idle one";
  EXPECT_TRUE(hasEnded(waiting));
  auto second = busy("2");
  auto third = connect();
  EXPECT_EQ(ask(third, request("GET /Bench/")).status, 503U);
  auto other = from("127.0.0.2");
  EXPECT_EQ(ask(other, request("GET /Bench/")).status, 200U);
  auto another = from("127.0.0.3");
  EXPECT_EQ(ask(another, request("GET /Bench/")).status, 200U) << "in the place of the idle one of 127.0.0.2";
  EXPECT_TRUE(hasEnded(other));
}

TEST_F(Bounds, NeitherOneTokensConnectionsNorThoseWithoutAnyKeepAnAdminOut)
{
  options.limits.connections = options.limits.connectionsPerPeer = 8;
  options.limits.connectionsPerToken = 4;
  options.limits.connectionsForAdmins = 2;
  options.limits.connectionsWithoutToken = 4;
  options.access->add("other-token", {"wall", Tarvik::Role::Observer});
  begin();
  std::vector<RawWebSocket> watching;
  const auto watch = [&](const std::string& bearer)
  {
    watching.emplace_back(connect(), port, bearer);
    watching.back().ask(call("session.subscribe", R"(["*"])"));
  };
  for (int i = 0; i < 4; ++i)
    watch("observer-token");
  EXPECT_EQ(get("/Bench/", {}, "observer-token").body, "the token of screen has as many connections as one may have: close some\n");
  for (int i = 0; i < 2; ++i)
    watch("other-token");
  EXPECT_EQ(get("/Bench/", {}, "other-token").status, 503U) << "the last places are kept";
  std::vector<Socket> silent;
  for (int i = 0; i < 20; ++i)
    silent.push_back(connect());
  for (int i = 0; i < 2; ++i)
    watch(token);
  EXPECT_TRUE(hasEnded(silent.front())) << "those without a token make room for each other";
  EXPECT_EQ(ask(silent.back(), request("GET /healthz")).status, 200U);
  EXPECT_EQ(get("/Bench/").status, 503U) << "a ninth one";
}

TEST_F(Bounds, WebSocketMakesRoomOnlyWhenNothingElseIsIdleAndNeverWithLinks)
{
  options.limits.connections = 2;
  begin();
  auto subscribed = open();
  subscribed.ask(call("session.subscribe", R"(["*"])"));
  auto later = idle();
  auto unused = open();
  EXPECT_TRUE(hasEnded(later));
  auto request = std::async(std::launch::async, [this] { return get("/Bench/").status; });
  EXPECT_EQ(unused.reasonOfEnd().code, websocket::close_code::try_again_later);
  EXPECT_EQ(request.get(), 200U);
  memory->raise("still", "here");
  EXPECT_EQ(subscribed.receive()["params"]["key"], "still");
}

TEST_F(Bounds, ClientThatDoesNotTakeItsAnswerIsDisconnectedAndDelaysNobody)
{
  options.limits.send = milliseconds(300);
  begin();
  vu::log::Capture log;
  auto slow = connect();
  slow.set_option(asio::socket_base::receive_buffer_size(4096));
  bench->filler = std::string(32 << 20, 'x');
  asio::write(slow, asio::buffer(request("GET /Bench/")));
  EXPECT_TRUE(eventually([&log] { return log.count(vu::log::Level::Info, "does not take its answer") == 1; }));
}

} // namespace
