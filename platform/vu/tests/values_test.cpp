#include <list>
#include <set>

#include <gmock/gmock.h>

#include <vu/caller.hpp>
#include <vu/conversion.hpp>
#include <vu/log.hpp>
#include <vu/packageinfo.hpp>

using testing::HasSubstr;
using testing::ThrowsMessage;
using vu::fromValue;
using vu::PackageInfo;
using vu::Value;

TEST(Conversion, NeverGuesses)
{
  constexpr auto largest = std::numeric_limits<std::uint64_t>::max();
  const std::vector<std::pair<std::function<void()>, std::string>> cases{
      {[] { fromValue<std::string>(1); }, "expected string, found number"},
      {[] { fromValue<int>(1.0); }, "expected int, found number"},
      {[] { fromValue<bool>(1); }, "expected bool, found number"},
      {[] { fromValue<double>("1"); }, "expected float, found string"},
      {[] { fromValue<std::vector<int>>("1"); }, "expected [int], found string"},
      {[] {
         fromValue<std::set<bool>>({true, "2"});
       },
       "expected bool, found string"},
      {[] { fromValue<int>(std::int64_t(1) << 31); }, "expected int, found 2147483648, which is out of range"},
      {[] { fromValue<unsigned>(-1); }, "expected int, found -1, which is out of range"},
      {[=] { fromValue<std::int64_t>(largest); }, "expected int, found 18446744073709551615, which is out of range"},
      {[] { fromValue<std::map<std::string, int>>(Value::array({1})); }, "expected value, found array: "}};
  for (const auto& [convert, text] : cases)
    EXPECT_THAT(convert, ThrowsMessage<vu::ConversionError>(HasSubstr(text)));
  EXPECT_EQ(fromValue<std::uint64_t>(largest), largest);
  EXPECT_EQ(fromValue<int>(std::numeric_limits<int>::min()), std::numeric_limits<int>::min());
  EXPECT_EQ(fromValue<float>(2), 2.0F);
  EXPECT_EQ(vu::typeName<const std::vector<std::list<std::string>>&>(), "[[string]]");
  EXPECT_EQ(vu::typeName<vu::Future<std::set<unsigned short>>>(), "future<[int]>");
}

TEST(PackageInfo, ConvertsToAValueAndBackOrNamesTheMemberThatDoesNotFit)
{
  const auto value = Value::parse(R"({"uuid": "greetings", "version": "1.2.0", "installer": "alice", "path": "/p/greetings",
    "names": {"en_US": "Greetings"}, "descriptions": {"en_US": "Says hello"}, "behaviors": [
      {"path": "hello", "nature": "solitary", "tags": {"en_US": ["b", "a"], "fr": []}}, {"path": ".", "nature": "", "tags": {}}],
    "may": ["Tokens.add"]})");
  EXPECT_EQ(Value(fromValue<PackageInfo>(value)), value);
  EXPECT_TRUE(PackageInfo(Value{{"uuid", "small"}}).behaviors().empty());

  const std::vector<std::pair<std::string, std::string>> cases{
      {R"([])", "a package record, found array"},
      {R"({})", "without the member \"uuid\""},
      {R"({"uuid": "a", "version": null})", "member \"version\": expected string"},
      {R"({"uuid": "a", "behaviors": ["hello"]})", "member \"behaviors\": expected a behavior record, found string"},
      {R"({"uuid": "a", "behaviors": [{"tags": {"en": [1]}}]})", "member \"behaviors\": member \"tags\""}};
  for (const auto& [text, wanted] : cases)
    EXPECT_THAT([record = Value::parse(text)] { (void)PackageInfo(record); }, ThrowsMessage<std::invalid_argument>(HasSubstr(wanted)));
}

TEST(Log, WritesOneLineWithCategoryFunctionAndCallerUpToItsLevel)
{
  const auto before = vu::log::level();
  testing::internal::CaptureStderr();
  {
    const vu::CallerScope caller("alice\n");
    vu::log::info("arm", "move", "first\nsecond\r\x1b[0m\ttab \xc2\x9b\x7f\xe2\x80\xae\xff\n\n");
  }
  vu::log::verbose("arm", "move", "hidden");
  vu::log::setLevel(vu::log::levelFromText("silent"));
  vu::log::fatal("arm", "move", "hidden too");
  vu::log::setLevel(vu::log::levelFromText("6"));
  vu::log::debug("arm", "stop", "{} %s");
  vu::log::setLevel(before);
  const auto output = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
  EXPECT_THAT(output, HasSubstr("[info] arm.move for alice: first\\nsecond\\u000d\\u001b[0m\ttab \\u009b\\u007f\\u202e\xef\xbf\xbd\n"));
  EXPECT_THAT(output, HasSubstr("[debug] arm.stop: {} %s\n"));
  for (const std::string text : {"", "Info", "7", "-1", "01"})
    EXPECT_THAT([&] { vu::log::levelFromText(text); }, ThrowsMessage<std::invalid_argument>(HasSubstr("unknown log level '" + text + "'")));
}
