#include "fixture.hpp"

#include <csignal>
#include <random>
#include <thread>

#include <testing/sanitized.hpp>

using namespace HostTest;
using namespace std::chrono_literals;

namespace
{

using Clock = std::chrono::steady_clock;

#ifdef OPTIMIZED_HOST
constexpr auto shutdownLimit = TestSupport::sanitized ? 20s : 5s;
#else
constexpr auto shutdownLimit = 20s;
#endif

const std::string idle = "<wait seconds=\"100000\"/>";
/// Ignores the request to end, as what it starts does.
const std::string deaf = "<run command=\"sh -c 'trap &quot;&quot; TERM; : > begun; while :; do sleep 1000; done'\"/>";
/// The same with a daemon, out of reach of its parent, its group and its session.
const std::string daemonized = "<run command=\"python3 -c 'import os, signal, time; signal.signal(signal.SIGTERM, signal.SIG_IGN); "
                               "os.fork() and time.sleep(1000); os.setsid(); os.fork() and os._exit(0); "
                               "open(&quot;begun&quot;, &quot;w&quot;).close(); time.sleep(1000)'\"/>";

} // namespace

class Shutdown : public RootFixture
{
protected:
  /// With a system package "load" of the behaviors b0, b1 and so on.
  std::vector<std::string> load()
  {
    TestSupport::writePackage(root / "system/load", "load", steps);
    return arguments({"--system-packages", (root / "system").string()});
  }
  static std::string behavior(int number) { return "load/b" + std::to_string(number); }

  /// Of the programs that hosts on this root have started, and their guards.
  std::size_t processes() const
  {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
      count += readFile(entry.path() / "environ").find("TARVIK_TOKEN_FILE=" + root.string()) != std::string::npos;
    return count;
  }
  std::ptrdiff_t begun() const
  {
    return std::count_if(steps.begin(), steps.end(), [this](const auto& entry) { return exists("system/load/" + entry.first + "/begun"); });
  }

  std::map<std::string, std::string> steps; ///< by behavior
};

TEST_F(Shutdown, TakesLessThanFiveSecondsWithAThousandBehaviorsAndAHundredClientsThatWait)
{
  constexpr int behaviors = TestSupport::sanitized ? 200 : 1000; // each end is told to all that play
  constexpr int programs = behaviors / 20;
  constexpr int clients = behaviors / 10;
  for (int i = 0; i < behaviors; ++i)
    steps["b" + std::to_string(i)] = i % (behaviors / programs) == 0 ? deaf : idle;
  Process daemon(load());
  ASSERT_NE(daemon.firstLine(), "");

  std::vector<std::unique_ptr<vu::RemoteSession>> sessions;
  std::vector<vu::Future<void>> runs;
  std::vector<vu::Future<void>> starts;
  std::vector<vu::Future<void>> late;
  for (int client = 0; client < clients; ++client)
  {
    sessions.push_back(connect());
    const auto manager = sessions.back()->service("ZBBehaviorManager").value();
    manager.connect<std::string>("behaviorStopped", [](const std::string&) {}).value();
    runs.push_back(manager.async<void>("runBehavior", behavior(client)));
    for (int i = clients + client; i < behaviors; i += clients)
      starts.push_back(manager.async<void>("startBehavior", behavior(i)));
  }
  for (const auto& start : starts)
    ASSERT_TRUE(start.wait(TestSupport::patience) && start.hasValue()) << start.error();
  const auto manager = sessions.front()->service("ZBBehaviorManager").value();
  ASSERT_TRUE(eventually([&] { return begun() == programs; }));
  ASSERT_TRUE(eventually([&] { return manager.call<std::vector<std::string>>("getRunningBehaviors").size() == behaviors; }));

  for (int i = 0; i < clients; ++i)
    late.push_back(manager.async<void>("stopBehavior", behavior(i * 7)));
  const auto before = Clock::now();
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForEnd(), 0) << daemon.error();
  const auto duration = Clock::now() - before;
  EXPECT_LT(duration, shutdownLimit);
  RecordProperty("milliseconds", static_cast<int>(duration / 1ms));
  for (const auto& calls : {runs, late})
    for (const auto& call : calls)
      EXPECT_TRUE(call.wait(10s)) << "a client waits for ever";
  EXPECT_EQ(processes(), 0u);
  EXPECT_EQ(daemon.error(), "");
}

TEST_F(Shutdown, AHostThatIsKilledAtAnyMomentTakesItsProgramsAlong)
{
  for (int i = 0; i < 12; ++i)
    steps["b" + std::to_string(i)] = "<repeat>" +
                                     (i % 3 == 0   ? deaf
                                      : i % 3 == 1 ? daemonized
                                                   : "<run command=\"true\"/>" + idle) +
                                     "</repeat>";
  std::minstd_rand random(std::random_device{}());
  for (int round = 0; round < 6; ++round)
  {
    std::filesystem::remove_all(root / "system/load");
    Process daemon(load());
    daemon.firstLine();
    {
      const auto session = connect();
      const auto manager = session->service("ZBBehaviorManager").value();
      std::vector<vu::Future<void>> starts;
      for (int i = 0; i < 12; ++i)
        starts.push_back(manager.async<void>("startBehavior", behavior(i)));
      // While programs come into being, and in the last round when all are there.
      if (round == 5)
      {
        EXPECT_TRUE(eventually([this] { return begun() == 8; }));
      }
      else
      {
        starts.front().wait(TestSupport::patience);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 200));
      }
      daemon.signal(SIGKILL);
    }
    daemon.waitForEnd();
    EXPECT_TRUE(eventually([this] { return processes() == 0; }, TestSupport::sanitized ? 20s : 2s))
        << processes() << " live in round " << round;
  }
}
