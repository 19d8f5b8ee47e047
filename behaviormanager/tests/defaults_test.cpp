#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testplatform.hpp"

using namespace ZB;
using namespace ZB::BehaviorManager;
using testing::ElementsAre;
using vu::log::Level;

namespace
{

vu::Value fileWith(const std::string& text)
{
  return vu::Value::array({vu::Value::array({"DefaultBehaviors", "List of default behaviors separated by endlines", text})});
}

class DefaultBehaviors : public testing::Test
{
protected:
  DefaultBehaviors() : manager(platform.start({platform.makePackage("P", {"a", "b", "."}), platform.makePackage("Q", {".default", "b"})}))
  {
  }

  TestPlatform platform{{.threads = 1, .maximum = 1}}; // what is posted first runs first
  ZBBehaviorManager& manager;
};

} // namespace

TEST_F(DefaultBehaviors, AreWrittenResolvedAndSortedOnEveryAddAndRemove)
{
  manager.addDefaultBehavior("User/P/b");
  EXPECT_EQ(platform.log.count(Level::Verbose, "DefaultBehaviors preference file could not be read: there is no file DefaultBehaviors"),
            1U);
  manager.addDefaultBehavior("P");
  EXPECT_EQ(platform.preferenceFile, fileWith("P/.\nP/b\n"));
  EXPECT_THAT(platform.journal.lines("readPrefFile "), ElementsAre(R"(["DefaultBehaviors",false])", R"(["DefaultBehaviors",false])"));
  EXPECT_EQ(platform.journal.lines("writePrefFile ").back(), vu::Value::array({"DefaultBehaviors", fileWith("P/.\nP/b\n"), true}).dump());
  platform.preferences->refuse("writePrefFile", "disk full");
  EXPECT_EQ(refusal([&] { manager.addDefaultBehavior("P/a"); }), "ZBPreferences.writePrefFile: disk full");
  for (const char* name : {"P/b", "P", "P"})
    manager.removeDefaultBehavior(name);
  EXPECT_EQ(platform.preferenceFile, fileWith(""));
  EXPECT_EQ(platform.journal.lines("writePrefFile").size(), 5U); // without that which was refused
}

TEST_F(DefaultBehaviors, AreReadFromWhateverTheFileHolds)
{
  const std::vector<std::pair<vu::Value, std::vector<std::string>>> cases{
      {fileWith("P/b\n\n\nP/a"), {"P/a", "P/b"}},
      {fileWith("\na\nP/b\nGone/x\nP/a\r\n a\n"), {"P/a", "P/b"}},
      {fileWith(std::string("P/b\nP/.\0/x\nP/a\n", 15)), {"P/.", "P/b"}}, // a zero byte ends the text
      {fileWith("P/b\nb\nP/a\n"), {"P/b"}},                               // and so does an ambiguous name
      {vu::Value::array({vu::Value::array({"Other", 7, "P/a\n"}), "more"}), {"P/a"}},
      {vu::Value::array({vu::Value::array({"DefaultBehaviors", "too short"})}), {}},
      {vu::Value::array({vu::Value::array({"", "", 7})}), {}},
      {"text", {}},
      {vu::Value::object({{"0", 1}}), {}}};
  for (const auto& [file, names] : cases)
  {
    platform.preferenceFile = file;
    EXPECT_EQ(manager.getDefaultBehaviors(), names) << file;
  }
  EXPECT_EQ(platform.log.count(Level::Warning, "default behavior \"b\": Found several behaviors"), 1U);
  EXPECT_EQ(platform.log.count(Level::Verbose, "could not be read: Found several behaviors with the name \"b\""), 1U);
}

TEST_F(DefaultBehaviors, PlayTheStartUpBehaviorOnceAndFirst)
{
  platform.preferenceFile = fileWith("P/b\n.default\nQ/.default\nP/a\nP/.\n");
  std::filesystem::remove(platform.directory / "P/a");
  manager.playDefaultProject();
  platform.settle();
  EXPECT_THAT(platform.journal.lines("signal behaviorStarted "), ElementsAre("[\"Q/.default\"]", "[\"P/.\"]", "[\"P/b\"]"));
  EXPECT_EQ(platform.log.count(Level::Warning, ""), 0U) << "it was posted twice";

  manager.stopAllBehaviors();
  platform.install(platform.makePackage("R", {".default"}));
  platform.journal.clear();
  EXPECT_TRUE(
      refusal([&] { platform.manager->onDataChanged("TarvikReady", 1, ""); }).starts_with("ZBBehaviorManager.xResolveBehaviorName"));
  platform.settle();
  EXPECT_THAT(platform.journal.lines("createBehavior "), testing::IsEmpty());
  const auto line = platform.log.lines().back();
  EXPECT_EQ(line.level, Level::Warning);
  EXPECT_EQ(line.category + " " + line.message.substr(0, 28), "behaviormanager default behavior \".default\":");
}
