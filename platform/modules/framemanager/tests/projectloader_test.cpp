#include "framemanagerfixture.hpp"

#include <fcntl.h>

#include <future>
#include <latch>
#include <thread>

#include <projectloader.hpp>

using testing::HasSubstr;

namespace ZB::FrameManager
{

namespace
{

std::string failureOf(const std::function<void()>& function)
{
  try
  {
    function();
    return "none";
  }
  catch (const std::exception& error)
  {
    return error.what();
  }
}

} // namespace

TEST(ProjectLoaderTest, FilesThatDoNotAnswerHoldAFewReadersAndNobodyBeyondTheLimit)
{
  const auto answer = std::make_shared<std::promise<void>>();
  const auto reads = std::make_shared<std::atomic<std::size_t>>(0);
  ProjectLoader loader(std::chrono::seconds(1),
                       [reads, answered = answer->get_future().share()](const std::string&, const std::string& file)
                       {
                         ++*reads;
                         if (file == "far.xar")
                           answered.wait();
                         if (file == "bad.xar")
                           throw std::runtime_error("bad");
                         return Project{};
                       });
  EXPECT_EQ(failureOf([&] { loader.load("/p", "bad.xar"); }), "bad");
  const std::string late = "in /p has not been read within 1 s; see whether the file system it lies on answers";
  std::vector<std::thread> callers;
  for (std::size_t i = 0; i < ProjectLoader::readers + 4; ++i)
    callers.emplace_back([&] { EXPECT_EQ(failureOf([&] { loader.load("/p", "far.xar"); }), "the project file \"far.xar\" " + late); });
  for (auto& caller : callers)
    caller.join();
  EXPECT_EQ(*reads, 1 + ProjectLoader::readers);
  EXPECT_EQ(failureOf([&] { loader.load("/p", "near.xar"); }), "the project file \"near.xar\" " + late);
  answer->set_value();
  // The readers come back when they get their time.
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::string failure;
  do
    failure = failureOf([&] { loader.load("/p", "near.xar"); });
  while (failure != "none" && std::chrono::steady_clock::now() < deadline);
  EXPECT_EQ(failure, "none");
}

TEST(ProjectLoaderTest, ClosingSendsTheWaitingAwayAtOnce)
{
  std::promise<void> answer;
  std::promise<void> begun;
  ProjectLoader loader(std::chrono::hours(1),
                       [&begun, answered = answer.get_future().share()](const std::string&, const std::string&)
                       {
                         begun.set_value();
                         answered.wait();
                         return Project{};
                       });
  auto waiting = std::async(std::launch::async, [&] { return failureOf([&] { loader.load("/p", "far.xar"); }); });
  begun.get_future().wait();
  loader.close();
  EXPECT_THAT(waiting.get(), HasSubstr("the host is shutting down"));
  EXPECT_THAT(failureOf([&] { loader.load("/p", "far.xar"); }), HasSubstr("the host is shutting down"));
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
  start({{"framemanager", {{"createTimeoutMs", 10}}}});
  EXPECT_THAT(failureOf([&] { create(steps); }), HasSubstr("has not been read within 0.01 s"));
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (failureOf([&] { create(""); }) != "none" && std::chrono::steady_clock::now() < deadline)
    ;
  EXPECT_EQ(manager->behaviors().size(), 1u) << "nothing has come late";
}

TEST_F(TimeLimitTest, APlayThatCannotBeginIsStoppedAndTheNextSucceeds)
{
  start({{"framemanager", {{"playTimeoutMs", 100}}}});
  // Whoever logs waits for the reader of a log that is full.
  int full[2];
  ASSERT_EQ(::pipe2(full, O_CLOEXEC | O_NONBLOCK), 0);
  const std::string filling(4096, 'x');
  while (::write(full[1], filling.data(), filling.size()) > 0)
    ;
  ::fcntl(full[1], F_SETFL, 0);
  const int saved = ::dup(2);
  ::dup2(full[1], 2);
  std::vector<std::string> ids;
  for (int i = 0; i < 2; ++i) // as many as there are threads
    ids.push_back(play("<log message=\"held\"/>"));
  ids.push_back(create("<call service=\"Robot\" method=\"note\" arguments='[\"late\"]'/>"));
  std::vector<vu::Future<void>> stopped;
  for (const auto& id : ids)
    stopped.push_back(manager->waitForStopped(id));
  const auto failure = failureOf([&] { manager->playBehavior(ids.back()); });
  ::dup2(saved, 2);
  std::string drained(1 << 16, 0);
  std::atomic<bool> done = false;
  std::thread reader(
      [&]
      {
        while (!done)
          if (::read(full[0], drained.data(), drained.size()) <= 0)
            std::this_thread::yield();
      });
  EXPECT_THAT(failure, HasSubstr("has not begun within 0.1 s and was stopped"));
  for (const auto& each : stopped)
    EXPECT_EQ(outcome(each), "");
  EXPECT_EQ(signalsOf(ids.back()), "stopped");
  EXPECT_EQ(run("<call service=\"Robot\" method=\"note\" arguments='[\"next\"]'/>"), "");
  EXPECT_THAT(robot->notes(), testing::ElementsAre("next"));
  done = true;
  reader.join();
  for (const int descriptor : {full[0], full[1], saved})
    ::close(descriptor);
}

TEST_F(TimeLimitTest, ACallThatWaitsForAThreadDoesNotBeginAfterTheStop)
{
  start(vu::Value::object(), {1, 1, 4096});
  std::latch release(1);
  std::promise<void> held;
  broker->pool()->post(
      [&]
      {
        held.set_value();
        release.wait();
      });
  held.get_future().wait();
  const auto note = [](const std::string& text) { return "<call service=\"Robot\" method=\"note\" arguments='[\"" + text + "\"]'/>"; };
  const auto id = play(note("first") + note("second"));
  manager->deleteBehavior(id);
  release.count_down();
  broker->pool()->waitUntilIdle();
  EXPECT_EQ(robot->notes(), std::vector<std::string>());
}

} // namespace ZB::FrameManager
