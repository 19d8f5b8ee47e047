#include "framemanagerfixture.hpp"

#include <packages/projectreader.hpp>

namespace ZB::FrameManager
{

class ExamplesTest : public FrameManagerTest
{
protected:
  std::string playExample(const std::string& behavior) const
  {
    const auto id = manager->createBehavior(EXAMPLE_PACKAGES, behavior + "/behavior.xar", behavior);
    manager->playBehavior(id);
    return id;
  }
};

TEST_F(ExamplesTest, EveryProjectIsRead)
{
  int projects = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(EXAMPLE_PACKAGES))
    if (entry.path().filename() == "behavior.xar")
    {
      EXPECT_NO_THROW(packages::readProject(entry.path().parent_path().string(), "behavior.xar")) << entry.path();
      ++projects;
    }
  EXPECT_GE(projects, 9);
}

TEST_F(ExamplesTest, EachEndsAsItSays)
{
  const vu::log::Capture capture;
  const std::pair<const char*, const char*> cases[] = {
      {"greetings/hello", ""},
      {"greetings/countdown", ""},
      {"greetings/wave", ""},
      {"diagnostics/self-test", ""},
      {"diagnostics/low-battery", "put the robot on its charger"},
      {"notebook/remember", ""},
      {"notebook/forget", ""},
      {"notebook/forget", "Notebook/Entry"},
  };
  for (const auto& [behavior, reason] : cases)
  {
    const auto text = outcome(manager->waitForStopped(playExample(behavior)));
    EXPECT_THAT(text, testing::HasSubstr(reason)) << behavior;
    EXPECT_EQ(text.empty(), *reason == '\0') << behavior;
  }
  EXPECT_EQ(capture.count(vu::log::Level::Info, "greetings/countdown: tick"), 3u);
  EXPECT_EQ(capture.count(vu::log::Level::Info, "greetings/wave:  o/"), 3u);
  const auto clock = playExample("clock");
  const auto memory = broker->getProxy("ZBMemory");
  EXPECT_TRUE(eventually([&] { return memory->call<std::vector<std::string>>("getDataListName").front() == "Clock/Tick"; }));
  EXPECT_TRUE(holds(clock));
  manager->deleteBehavior(clock);
  EXPECT_EQ(signalsOf(clock), "stopped");
}

} // namespace ZB::FrameManager
