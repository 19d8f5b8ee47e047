#include <zbpreferences.hpp>

#include <csignal>
#include <fstream>
#include <limits>
#include <sys/resource.h>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbpreferencesproxy.hpp>

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace
{

class Preferences : public testing::Test
{
protected:
  Preferences()
  {
    auto name = (fs::path(testing::TempDir()) / "preferences-XXXXXX").string();
    root = mkdtemp(name.data());
    start();
  }
  ~Preferences() override
  {
    broker->shutdown();
    fs::remove_all(root);
  }

  void start()
  {
    if (broker)
      broker->shutdown();
    ZB::ZBBroker::Options options;
    options.configuration["root"] = root.string();
    broker = ZB::ZBBroker::create(options);
    broker->createModule<ZB::ZBPreferences>("ZBPreferences");
    proxy = std::make_unique<ZB::ZBPreferencesProxy>(broker);
  }

  fs::path file(const std::string& name) const { return root / "preferences" / name; }

  std::vector<std::string> files() const
  {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(root / "preferences"))
      names.push_back(entry.path().filename().string());
    return names;
  }

  template <typename F> static std::string errorOf(const F& function)
  {
    try
    {
      function();
    }
    catch (const ZB::ZBError& error)
    {
      EXPECT_EQ(error.module(), "ZBPreferences");
      return error.description();
    }
    ADD_FAILURE() << "no error";
    return {};
  }

  fs::path root;
  std::shared_ptr<ZB::ZBBroker> broker;
  std::unique_ptr<ZB::ZBPreferencesProxy> proxy;
};

TEST_F(Preferences, whatIsWrittenIsReadAgainAlsoAfterARestart)
{
  const vu::Value settings = {{"list", {"a", 1, 2.5, nullptr}}, {"text", "Grüße"}, {"nested", {{"on", true}}}};
  proxy->writePrefFile("Settings", ZB::ZBValue(settings), true);
  EXPECT_EQ(proxy->readPrefFile("Settings", false).value(), settings);
  start();
  EXPECT_EQ(proxy->readPrefFile("Settings", true).value(), settings);
  std::ofstream(file("Settings.json")) << "[1]";
  EXPECT_EQ(proxy->readPrefFile("Settings", false).value(), vu::Value({1})) << "an edit by another party is not seen";
}

TEST_F(Preferences, missingFileIsAnErrorThatNamesIt)
{
  proxy->writePrefFile("Settings", ZB::ZBValue(1), true);
  proxy->removePrefFile("Settings");
  EXPECT_THAT(errorOf([&] { proxy->readPrefFile("Settings", false); }), HasSubstr("there is no preference file \"Settings\""));
  EXPECT_THAT(errorOf([&] { proxy->removePrefFile("Settings"); }), HasSubstr(file("Settings.json").string()));
}

TEST_F(Preferences, damagedFileIsAnErrorThatNamesFileAndOffset)
{
  std::ofstream(file("Damaged.json")) << R"({"a": 1, "b" 2})";
  const auto error = errorOf([&] { proxy->readPrefFile("Damaged", false); });
  EXPECT_THAT(error, HasSubstr(file("Damaged.json").string()));
  EXPECT_THAT(error, HasSubstr("byte 14"));
  for (const std::string content : {"", "[1] [2]", "{\"a\": \"\xff\"}", "nonsense"})
  {
    SCOPED_TRACE(content);
    std::ofstream(file("Damaged.json")) << content;
    const auto text = errorOf([&] { proxy->readPrefFile("Damaged", false); });
    EXPECT_THAT(text, HasSubstr("is damaged"));
    EXPECT_NO_THROW((void)vu::Value(text).dump()) << "the message cannot travel";
  }
}

TEST_F(Preferences, namesStayInsideTheFolder)
{
  for (const std::string name : {"a", "A-b_c.d", "0", "a.json", "a..b"})
  {
    SCOPED_TRACE(name);
    proxy->writePrefFile(name, ZB::ZBValue(name), true);
    EXPECT_EQ(proxy->readPrefFile(name, false).to<std::string>(), name);
  }
  proxy->writePrefFile(std::string(128, 'x'), ZB::ZBValue(1), true);
  const auto before = files();
  for (const auto& name :
       {std::string(), std::string("."), std::string(".."), std::string("../a"), std::string("a/b"), std::string("/etc/passwd"),
        std::string(".hidden"), std::string("a b"), std::string("a\nb"), std::string("a\0b", 3), std::string("ä"), std::string(129, 'x')})
  {
    SCOPED_TRACE(name);
    for (const auto& error :
         {errorOf([&] { proxy->readPrefFile(name, false); }), errorOf([&] { proxy->writePrefFile(name, ZB::ZBValue(1), true); }),
          errorOf([&] { proxy->removePrefFile(name); })})
      EXPECT_THAT(error, HasSubstr("cannot name a preference file"));
  }
  EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
}

TEST_F(Preferences, settingsThatJsonCannotHoldAreRefusedAndTheOldOnesStay)
{
  proxy->writePrefFile("Settings", ZB::ZBValue("old"), true);
  EXPECT_THAT(errorOf(
                  [&] {
                    proxy->writePrefFile("Settings", ZB::ZBValue(vu::Value({1, {{"a", std::numeric_limits<double>::infinity()}}})), true);
                  }),
              HasSubstr("not finite"));
  EXPECT_THAT(errorOf([&] { proxy->writePrefFile("Settings", ZB::ZBValue("\xff"), true); }), HasSubstr("UTF-8"));
  EXPECT_EQ(proxy->readPrefFile("Settings", false).to<std::string>(), "old");
}

TEST_F(Preferences, writeThatFailsLeavesTheOldContentAndNoTemporary)
{
  proxy->writePrefFile("Settings", ZB::ZBValue("old"), true);
  rlimit previous{};
  getrlimit(RLIMIT_FSIZE, &previous);
  const rlimit small{1000, previous.rlim_max};
  auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const auto error = errorOf([&] { proxy->writePrefFile("Settings", ZB::ZBValue(std::string(5000, 'x')), true); });
  setrlimit(RLIMIT_FSIZE, &previous);
  std::signal(SIGXFSZ, handler);
  EXPECT_THAT(error, HasSubstr("\"Settings\" could not be written"));
  EXPECT_EQ(proxy->readPrefFile("Settings", false).to<std::string>(), "old");
  EXPECT_THAT(files(), testing::ElementsAre("Settings.json"));
}

TEST_F(Preferences, leftOverTemporaryIsClearedAtStart)
{
  std::ofstream(file(".Settings.json.abcdef.writing")) << "half";
  start();
  EXPECT_THAT(files(), testing::IsEmpty());
}

TEST_F(Preferences, readersAmongConcurrentWritersSeeWholeContents)
{
  constexpr int writers = 4;
  proxy->writePrefFile("Shared", ZB::ZBValue(std::vector<int>(500, 0)), true);
  std::vector<std::thread> threads;
  for (int writer = 1; writer <= writers; ++writer)
    threads.emplace_back(
        [&, writer]
        {
          for (int i = 0; i < 20; ++i)
          {
            proxy->writePrefFile("Shared", ZB::ZBValue(std::vector<int>(500 * writer, writer)), true);
            const auto found = proxy->readPrefFile("Shared", false).to<std::vector<int>>();
            EXPECT_EQ(found.size(), 500U * static_cast<unsigned>(std::max(found.front(), 1)));
            EXPECT_EQ(found.front(), found.back());
          }
        });
  for (auto& thread : threads)
    thread.join();
  EXPECT_THAT(files(), testing::ElementsAre("Shared.json"));
}

TEST(PreferencesStart, brokerWithoutRootIsRefused)
{
  const auto broker = ZB::ZBBroker::create();
  EXPECT_THROW(broker->createModule<ZB::ZBPreferences>("ZBPreferences"), ZB::ZBError);
  broker->shutdown();
}

} // namespace
