#include "framemanagerfixture.hpp"

#include <fcntl.h>

#include <future>
#include <latch>
#include <thread>

#include <projectloader.hpp>

using testing::HasSubstr;

namespace ZB::FrameManager
{

TEST(ProjectLoaderTest, FilesThatDoNotAnswerHoldAFewReadersAndNobodyBeyondTheLimit)
{
  std::promise<void> answer;
  const auto reads = std::make_shared<std::atomic<std::size_t>>(0);
  ProjectLoader loader(std::chrono::seconds(1),
                       [reads, answered = answer.get_future().share()](const std::string&, const std::string& file)
                       {
                         ++*reads;
                         if (file == "far.xar")
                           answered.wait();
                         if (file == "bad.xar")
                           throw std::runtime_error("bad");
                         return LoadedBehavior{};
                       });
  const auto failureOf = [&loader](const std::string& file) { return errorOf([&] { loader.load("/p", file); }); };
  EXPECT_EQ(failureOf("bad.xar"), "bad");
  const std::string late = "in /p has not been read within 1 s; see whether the file system it lies on answers";
  std::vector<std::thread> callers;
  for (std::size_t i = 0; i < ProjectLoader::readers + 4; ++i)
    callers.emplace_back([&] { EXPECT_EQ(failureOf("far.xar"), "the project file \"far.xar\" " + late); });
  for (auto& caller : callers)
    caller.join();
  EXPECT_EQ(*reads, 1 + ProjectLoader::readers);
  EXPECT_EQ(failureOf("near.xar"), "the project file \"near.xar\" " + late);
  answer.set_value();
  EXPECT_TRUE(eventually([&] { return failureOf("near.xar") == "no error"; })); // the readers come back when they get their time
}

TEST(ProjectLoaderTest, ClosingSendsTheWaitingAwayAtOnce)
{
  std::promise<void> answer;
  TestSupport::Event begun;
  ProjectLoader loader(std::chrono::hours(1),
                       [&begun, answered = answer.get_future().share()](const std::string&, const std::string&)
                       {
                         begun.set();
                         answered.wait();
                         return LoadedBehavior{};
                       });
  const auto load = [&] { return errorOf([&] { loader.load("/p", "far.xar"); }); };
  auto waiting = std::async(std::launch::async, load);
  begun.wait();
  loader.close();
  EXPECT_THAT(waiting.get(), HasSubstr("the host is shutting down"));
  EXPECT_THAT(load(), HasSubstr("the host is shutting down"));
  answer.set_value();
}

class TimeLimitTest : public FrameManagerTest
{
};

TEST_F(TimeLimitTest, ACreationThatTakesTooLongLeavesNothingAndTheNextSucceeds)
{
  std::string steps;
  while (steps.size() < 4000000)
    steps += "<wait seconds=\"1\"/>";
  start({{"framemanager", {{"createTimeoutMs", 5}}}});
  EXPECT_THAT(errorOf([&] { create(steps); }), HasSubstr("has not been read within 0.005 s"));
  EXPECT_TRUE(eventually([this] { return errorOf([this] { create(""); }) == "no error"; }));
  EXPECT_EQ(manager->behaviors().size(), 1u) << "nothing has come late";
}

TEST_F(TimeLimitTest, APlayThatCannotBeginIsStoppedAndTheNextSucceeds)
{
  start({{"framemanager", {{"playTimeoutMs", 1000}}}});
  // Whoever logs waits for the reader of a log that is full.
  int full[2];
  ASSERT_EQ(::pipe2(full, O_CLOEXEC | O_NONBLOCK), 0);
  const std::string filling(4096, 'x');
  while (::write(full[1], filling.data(), filling.size()) > 0)
    ;
  ::fcntl(full[1], F_SETFL, 0);
  const int saved = ::dup(2);
  ::dup2(full[1], 2);
  std::vector<vu::Future<void>> stopped;
  for (int i = 0; i < 2; ++i) // as many as there are threads
    stopped.push_back(manager->waitForStopped(play("<log message=\"held\"/>")));
  const auto late = create(note("late"));
  stopped.push_back(manager->waitForStopped(late));
  const auto answered = manager->ping();
  const auto failure = errorOf([&] { manager->playBehavior(late); });
  EXPECT_FALSE(answered.isFinished()) << "a watchdog would hear nothing";
  ::dup2(saved, 2);
  ::close(full[1]);
  std::string drained(1 << 20, 0);
  while (::read(full[0], drained.data(), drained.size()) > 0)
    ;
  EXPECT_THAT(failure, HasSubstr("has not begun within 1 s and was stopped"));
  for (const auto& each : stopped)
    EXPECT_EQ(outcome(each), "");
  EXPECT_TRUE(answered.wait(TestSupport::patience));
  EXPECT_EQ(signalsOf(late), "stopped");
  EXPECT_EQ(run(note("next")), "");
  EXPECT_THAT(robot->notes.lines(), testing::ElementsAre("next"));
  ::close(full[0]);
  ::close(saved);
}

TEST_F(TimeLimitTest, ACallThatWaitsForAThreadDoesNotBeginAfterTheStop)
{
  start(vu::Value::object(), {1, 1, 4096});
  std::latch release(1);
  TestSupport::Event held;
  broker->pool()->post(
      [&]
      {
        held.set();
        release.wait();
      });
  held.wait();
  manager->deleteBehavior(play(note("first") + note("next")));
  release.count_down();
  broker->pool()->waitUntilIdle();
  EXPECT_THAT(robot->notes.lines(), testing::IsEmpty());
}

} // namespace ZB::FrameManager
