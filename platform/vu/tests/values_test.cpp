#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vu/caller.hpp>
#include <vu/conversion.hpp>
#include <vu/log.hpp>
#include <vu/packageinfo.hpp>

using vu::BehaviorInfo;
using vu::ConversionError;
using vu::fromValue;
using vu::PackageInfo;
using vu::Value;

namespace
{

template <typename F> std::string textOf(const F& refused)
{
  try
  {
    refused();
  }
  catch (const std::invalid_argument& error)
  {
    return error.what();
  }
  return "accepted";
}

} // namespace

TEST(Conversion, NamesEveryTypeAsDescriptionsShowIt)
{
  EXPECT_EQ(vu::typeName<void>(), "void");
  EXPECT_EQ(vu::typeName<const bool&>(), "bool");
  EXPECT_EQ(vu::typeName<unsigned short>(), "int");
  EXPECT_EQ(vu::typeName<float>(), "float");
  EXPECT_EQ(vu::typeName<const std::vector<std::list<std::string>>&>(), "[[string]]");
  EXPECT_EQ(vu::typeName<std::set<int>>(), "[int]");
  EXPECT_EQ(vu::typeName<vu::Future<std::vector<int>>>(), "future<[int]>");
  EXPECT_EQ(vu::typeName<vu::Future<void>>(), "future<void>");
  EXPECT_EQ(vu::typeName<PackageInfo>(), "value");
}

TEST(Conversion, NeverGuesses)
{
  const std::vector<std::pair<std::function<void()>, std::string>> cases{
      {[] { fromValue<std::string>(1); }, "expected string, found number"},
      {[] { fromValue<std::string>(nullptr); }, "expected string, found null"},
      {[] { fromValue<int>(1.0); }, "expected int, found number"},
      {[] { fromValue<int>(true); }, "expected int, found boolean"},
      {[] { fromValue<bool>(1); }, "expected bool, found number"},
      {[] { fromValue<double>("1"); }, "expected float, found string"},
      {[] {
         fromValue<std::vector<int>>({{"a", 1}});
       },
       "expected [int], found object"},
      {[] {
         fromValue<std::vector<int>>({1, "2"});
       },
       "expected int, found string"},
      {[] { fromValue<int>(std::int64_t(1) << 31); }, "expected int, found 2147483648, which is out of range"},
      {[] { fromValue<unsigned>(-1); }, "expected int, found -1, which is out of range"},
      {[] { fromValue<std::int64_t>(std::numeric_limits<std::uint64_t>::max()); },
       "expected int, found 18446744073709551615, which is out of range"},
      {[] { fromValue<std::map<std::string, int>>(Value::array({1})); }, "expected value, found array: "}};
  for (const auto& [convert, text] : cases)
    EXPECT_EQ(textOf(convert).substr(0, text.size()), text);

  EXPECT_EQ(fromValue<std::uint64_t>(std::numeric_limits<std::uint64_t>::max()), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(fromValue<int>(std::numeric_limits<int>::min()), std::numeric_limits<int>::min());
  EXPECT_EQ(fromValue<float>(2), 2.0F);
  EXPECT_EQ(fromValue<std::set<int>>({3, 1, 3}), (std::set<int>{1, 3}));
  EXPECT_EQ(fromValue<Value>(nullptr), Value());
}

TEST(PackageInfo, ConvertsToAValueAndBack)
{
  const auto value = Value::parse(R"({"uuid": "greetings", "version": "1.2.0", "installer": "alice", "path": "/p/greetings",
    "names": {"en_US": "Greetings"}, "descriptions": {"en_US": "Says hello"}, "behaviors": [
      {"path": "hello", "nature": "solitary", "tags": {"en_US": ["b", "a"], "fr": []}}, {"path": ".", "nature": "", "tags": {}}]})");
  const auto package = fromValue<PackageInfo>(value);
  EXPECT_EQ(Value(package), value);
  EXPECT_EQ(package.uuid() + package.version() + package.installer() + package.path(), "greetings1.2.0alice/p/greetings");
  EXPECT_EQ(package.name("en_US") + package.description("en_US") + package.name("de"), "GreetingsSays hello");
  ASSERT_EQ(package.behaviors().size(), 2u);
  const BehaviorInfo behavior = package.behaviors().front();
  EXPECT_EQ(behavior.path() + behavior.nature(), "hellosolitary");
  EXPECT_EQ(behavior.tags("en_US"), (std::list<std::string>{"b", "a"})) << "in the manifest's order";
  EXPECT_TRUE(behavior.tags("de").empty());

  const PackageInfo small(Value{{"uuid", "small"}});
  EXPECT_EQ(PackageInfo(small.toValue()).toValue(), small.toValue());
  EXPECT_TRUE(small.behaviors().empty());
  EXPECT_EQ(PackageInfo().uuid() + BehaviorInfo().path(), "");
  EXPECT_EQ(BehaviorInfo().toValue(), Value::parse(R"({"path": "", "nature": "", "tags": {}})"));
}

TEST(PackageInfo, RefusesAValueOfAnotherShapeAndNamesTheMember)
{
  const std::vector<std::pair<std::string, std::string>> cases{
      {R"([])", "a package record, found array"},
      {R"({})", "without the member \"uuid\""},
      {R"({"uuid": 1})", "member \"uuid\": expected string"},
      {R"({"uuid": "a", "version": null})", "member \"version\": expected string"},
      {R"({"uuid": "a", "names": ["x"]})", "member \"names\""},
      {R"({"uuid": "a", "behaviors": {}})", "member \"behaviors\""},
      {R"({"uuid": "a", "behaviors": ["hello"]})", "member \"behaviors\": expected a behavior record, found string"},
      {R"({"uuid": "a", "behaviors": [{"tags": {"en": [1]}}]})", "member \"behaviors\": member \"tags\""}};
  for (const auto& [text, wanted] : cases)
  {
    const auto error = textOf([&, value = Value::parse(text)] { PackageInfo{value}; });
    EXPECT_NE(error.find(wanted), std::string::npos) << text << ": " << error;
  }
}

TEST(Log, LevelsHaveNamesAndNumbers)
{
  int number = 0;
  for (const auto* name : {"silent", "fatal", "error", "warning", "info", "verbose", "debug"})
  {
    EXPECT_EQ(static_cast<int>(vu::log::levelFromText(name)), number);
    EXPECT_EQ(static_cast<int>(vu::log::levelFromText(std::to_string(number++))), static_cast<int>(vu::log::levelFromText(name)));
  }
  for (const auto* text : {"", "Info", "7", "-1", "01"})
    EXPECT_NE(textOf([&] { vu::log::levelFromText(text); }).find("unknown log level '" + std::string(text) + "'"), std::string::npos);
}

TEST(Log, WritesOneLineWithCategoryFunctionAndCallerUpToItsLevel)
{
  const auto before = vu::log::level();
  testing::internal::CaptureStderr();
  {
    const vu::CallerScope caller("alice\n");
    vu::log::info("arm", "move", "first\nsecond\r\x1b[0m\ttab\n\n");
  }
  vu::log::verbose("arm", "move", "hidden");
  vu::log::setLevel(vu::log::Level::Silent);
  vu::log::fatal("arm", "move", "hidden too");
  vu::log::setLevel(vu::log::Level::Debug);
  vu::log::debug("arm", "stop", "{} %s");
  vu::log::setLevel(before);
  const auto output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(output.find("hidden"), std::string::npos);
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
  EXPECT_NE(output.find("[info] arm.move for alice: first\\nsecond\\x0d\\x1b[0m\ttab\n"), std::string::npos) << output;
  EXPECT_NE(output.find("[debug] arm.stop: {} %s\n"), std::string::npos) << output;
}

TEST(Log, CaptureKeepsEveryLevelWhileItLives)
{
  const auto before = vu::log::level();
  vu::log::setLevel(vu::log::Level::Silent);
  {
    vu::log::Capture outer;
    {
      const vu::log::Capture inner;
      const vu::CallerScope caller("bob");
      vu::log::debug("arm", "move", "a\nb");
      EXPECT_EQ(inner.count(vu::log::Level::Debug, "a\nb"), 1u);
    }
    vu::log::warning("arm", "stop", "c");
    const auto lines = outer.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].category + lines[0].function + lines[0].caller, "armmovebob");
    EXPECT_EQ(outer.count(vu::log::Level::Error, "c"), 0u);
    outer.clear();
    EXPECT_TRUE(outer.lines().empty());
  }
  vu::log::setLevel(before);
}
