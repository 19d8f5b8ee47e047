#include <zbpreferences.hpp>

#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbpreferencesproxy.hpp>

namespace fs = std::filesystem;
using testing::HasSubstr;
using TestSupport::errorOf;
using TestSupport::writeFile;

namespace
{

class Preferences : public testing::Test
{
protected:
  Preferences() { start(); }
  ~Preferences() override { broker->shutdown(); }

  void start()
  {
    if (broker)
      broker->shutdown();
    broker = ZB::ZBBroker::create({{}, {{"root", root.string()}}});
    broker->createModule<ZB::ZBPreferences>("ZBPreferences");
    proxy = std::make_unique<ZB::ZBPreferencesProxy>(broker);
  }

  vu::Value read(const std::string& name) const { return proxy->readPrefFile(name, false).value(); }
  void write(const std::string& name, const vu::Value& settings) const { proxy->writePrefFile(name, ZB::ZBValue(settings), true); }
  fs::path file(const std::string& name) const { return root / "preferences" / name; }

  std::vector<std::string> files() const { return TestSupport::namesIn(root / "preferences"); }

  const TestSupport::TemporaryDirectory root;
  std::shared_ptr<ZB::ZBBroker> broker;
  std::unique_ptr<ZB::ZBPreferencesProxy> proxy;
};

TEST_F(Preferences, whatIsWrittenIsReadAgainAfterARestartWhichClearsHalfWrittenFiles)
{
  const vu::Value settings = {{"list", {"a", 1, 2.5, nullptr}}, {"text", "Grüße"}, {"nested", {{"on", true}}}};
  write("Settings", settings);
  EXPECT_EQ(read("Settings"), settings);
  writeFile(file(".Settings.json.abcdef.writing"), "half");
  start();
  EXPECT_EQ(read("Settings"), settings);
  EXPECT_THAT(files(), testing::ElementsAre("Settings.json"));
  writeFile(file("Settings.json"), "[1]");
  EXPECT_EQ(read("Settings"), vu::Value({1})) << "an edit by another party is not seen";
}

TEST_F(Preferences, missingOrDamagedFileIsAnErrorThatNamesIt)
{
  write("Settings", 1);
  proxy->removePrefFile("Settings");
  EXPECT_THAT(errorOf([&] { read("Settings"); }), HasSubstr("there is no preference file \"Settings\""));
  EXPECT_THAT(errorOf([&] { proxy->removePrefFile("Settings"); }), HasSubstr(file("Settings.json").string()));
  const std::pair<std::string, const char*> cases[] = {{R"({"a": 1, "b" 2})", "byte 14"},
                                                       {"", "is damaged"},
                                                       {"[1] [2]", "is damaged"},
                                                       {"{\"a\": \"\xff\"}", "is damaged"},
                                                       {std::string(100000, '[') + std::string(100000, ']'), "128 deep"}};
  for (const auto& [content, fault] : cases)
  {
    SCOPED_TRACE(content);
    writeFile(file("Damaged.json"), content);
    const auto error = errorOf([&] { read("Damaged"); });
    EXPECT_THAT(error, testing::AllOf(HasSubstr(fault), HasSubstr(file("Damaged.json").string())));
    EXPECT_NO_THROW((void)vu::Value(error).dump()) << "the message cannot travel";
  }
}

TEST_F(Preferences, damagedFilesAreLoggedAndEachIsKeptBeforeAnotherTakesItsPlace)
{
  vu::log::Capture log;
  for (const auto* kept : {"Settings.json.damaged", "Settings.json.damaged.2"})
  {
    writeFile(file("Settings.json"), kept + std::string(" {"));
    errorOf([&] { read("Settings"); });
    EXPECT_EQ(log.count(vu::log::Level::Error, "Settings.json is damaged at byte"), 1U);
    write("Settings", "new");
    EXPECT_EQ(log.count(vu::log::Level::Error, "is kept as " + std::string(kept) + ","), 1U);
    EXPECT_EQ(read("Settings"), vu::Value("new"));
    write("Settings", "newer"); // a sound one is not kept
    EXPECT_EQ(TestSupport::readFile(file(kept)), kept + std::string(" {"));
    log.clear();
  }
  EXPECT_EQ(files().size(), 3U);
}

TEST_F(Preferences, brokerWithoutRootIsRefused)
{
  broker->shutdown();
  broker = ZB::ZBBroker::create();
  EXPECT_THAT(errorOf([this] { broker->createModule<ZB::ZBPreferences>("ZBPreferences"); }), HasSubstr("\"root\""));
}

TEST_F(Preferences, namesStayInsideTheFolder)
{
  for (const std::string& name : {std::string("A-b_c.d"), std::string("a..b"), std::string(128, 'x')})
  {
    write(name, name);
    EXPECT_EQ(read(name), vu::Value(name));
  }
  for (const auto& name : {std::string(), std::string(".."), std::string("../a"), std::string("a/b"), std::string("/etc/passwd"),
                           std::string(".hidden"), std::string("a\nb"), std::string("a\0b", 3), std::string("ä"), std::string(129, 'x')})
  {
    SCOPED_TRACE(name);
    for (const auto& error :
         {errorOf([&] { read(name); }), errorOf([&] { write(name, 1); }), errorOf([&] { proxy->removePrefFile(name); })})
      EXPECT_THAT(error, HasSubstr("cannot name a preference file"));
  }
  EXPECT_EQ(files().size(), 3U);
}

TEST_F(Preferences, writeThatFailsNamesTheCauseAndLeavesTheOldSettings)
{
  write("Settings", "old");
  EXPECT_THAT(errorOf([&] { write("Settings", {1, {{"a", std::numeric_limits<double>::infinity()}}}); }), HasSubstr("not finite"));
  EXPECT_THAT(errorOf([&] { write("Settings", "\xff"); }), HasSubstr("UTF-8"));
  vu::Value deep = 1;
  for (int depth = 0; depth < 129; ++depth)
    deep = vu::Value::array({deep});
  EXPECT_THAT(errorOf([&] { write("Settings", deep); }), HasSubstr("128 deep"));
  write("Deep", deep.at(0));
  EXPECT_EQ(read("Deep"), deep.at(0));
  proxy->removePrefFile("Deep");
  EXPECT_EQ(read("Settings"), vu::Value("old"));
  fs::create_directory(file("Folder.json"));
  EXPECT_THAT(errorOf([&] { write("Folder", 1); }), HasSubstr("\"Folder\" could not be written"));
  EXPECT_THAT(files(), testing::ElementsAre("Folder.json", "Settings.json"));
}

TEST_F(Preferences, readersAmongConcurrentWritersSeeWholeContents)
{
  const auto work = [&](unsigned writer)
  {
    for (int i = 0; i < 20; ++i)
    {
      write("Shared", std::vector<unsigned>(500 * writer, writer));
      const auto found = read("Shared").get<std::vector<unsigned>>();
      EXPECT_EQ(found, std::vector<unsigned>(500 * found.at(0), found.at(0)));
    }
  };
  std::vector<std::jthread> threads;
  for (unsigned writer = 1; writer <= 4; ++writer)
    threads.emplace_back(work, writer);
  threads.clear();
  EXPECT_THAT(files(), testing::ElementsAre("Shared.json"));
}

} // namespace
