#include <cli/text.hpp>

#include <gmock/gmock.h>

#include <sstream>

#include <vu/text.hpp>
#include <vu/value.hpp>

#include "safeoutput.hpp"

namespace Tarvik
{

using testing::EndsWith;
using testing::HasSubstr;
using vu::Value;

TEST(Table, alignsColumnsByCharactersWithoutSpacesAtTheEndOfALine)
{
  EXPECT_EQ(formatTable({{"NAME", "STATE", "TAGS"}, {"grüße/a", "running", ""}, {"b", "", "x, y"}}), "NAME     STATE    TAGS\n"
                                                                                                     "grüße/a  running\n"
                                                                                                     "b                 x, y\n");
}

TEST(Duration, isToldInItsTwoLargestUnits)
{
  const std::vector<std::pair<std::int64_t, std::string>> cases{{0, "0.0 s"},
                                                                {199, "0.1 s"},
                                                                {59999, "59.9 s"},
                                                                {60000, "1 min 0 s"},
                                                                {3599999, "59 min 59 s"},
                                                                {3600000, "1 h 0 min"},
                                                                {86399999, "23 h 59 min"},
                                                                {273600000, "3 d 4 h"}};
  for (const auto& [milliseconds, text] : cases)
    EXPECT_EQ(formatDuration(std::chrono::milliseconds(milliseconds)), text);
}

TEST(Duration, isReadWithOneUnit)
{
  const std::vector<std::pair<std::string, int>> cases{{"45s", 45}, {"10m", 600}, {"12h", 43200}, {"30d", 2592000}};
  for (const auto& [text, seconds] : cases)
    EXPECT_EQ(parseDuration(text), std::chrono::seconds(seconds)) << text;
  for (const auto* const text : {"", "s", "30", "0s", "-1s", "1.5h", "1w", "1hh", " 1h", "1 h", "4294967296s"})
    EXPECT_FALSE(parseDuration(text)) << text;
}

TEST(Value, isShownBareAsStringAndNotAtAllAsNull)
{
  EXPECT_EQ(formatValue("a \"b\""), "a \"b\"\n");
  EXPECT_EQ(formatValue(nullptr), "");
  EXPECT_EQ(formatValue(true), "true\n");
  EXPECT_EQ(formatValue(Value::array({1})), "[\n  1\n]\n");
}

TEST(SingleLine, hasNoControlCharacters) { EXPECT_EQ(singleLine("a\nb\tc\x1b[2J\n"), "a b c [2J"); }

TEST(Description, showsSignaturesInAdvertisedOrder)
{
  vu::ObjectDescription description{"Clock", "Tells the time.", {}, {{"struck", {"int", "[string]"}}}};
  description.methods.push_back({"wind", "", {{"turns", "How often.", "int"}, {"", "", "value"}}, std::nullopt, false});
  description.methods.push_back({"await", "Waits.", {}, vu::ParameterDescription{"hour", "The next hour.", "future<int>"}, true});
  const auto text = formatDescription(description);
  EXPECT_EQ(text, "Clock\n"
                  "  Tells the time.\n"
                  "\nmethods\n"
                  "  wind(turns: int, value)\n"
                  "      turns: How often.\n"
                  "  await() -> future<int>\n"
                  "      Waits.\n"
                  "      returns The next hour.\n"
                  "\nsignals\n"
                  "  struck(int, [string])\n");
}

TEST(Notification, isOneLineForPeopleAndAnObjectForPrograms)
{
  const std::chrono::system_clock::time_point time(std::chrono::milliseconds(1'700'000'000'042));
  const Value event{{"link", 7}, {"key", "a\nb"}, {"value", {{"x", "1\n2"}}}};
  EXPECT_THAT(formatNotification("event", event, time), EndsWith(R"(.042  event   a b  {"x":"1\n2"})"));
  EXPECT_EQ(notificationValue("event", event, time),
            Value({{"time", "2023-11-14T22:13:20.042Z"}, {"kind", "event"}, {"key", "a\nb"}, {"value", {{"x", "1\n2"}}}}));

  const Value signal{{"link", 8}, {"service", "S"}, {"signal", "s"}, {"arguments", Value::array({"x", 2})}};
  EXPECT_THAT(formatNotification("signal", signal, time), EndsWith(R"(.042  signal  S.s("x", 2))"));
  EXPECT_EQ(notificationValue("signal", signal, time)["arguments"], Value::array({"x", 2}));
  EXPECT_FALSE(notificationValue("signal", signal, time).contains("link"));
  EXPECT_THAT(formatNotification("event", {{"key", "k"}, {"value", "\xff"}}, time), HasSubstr("\xEF\xBF\xBD")) << "no text, but shown";
}

TEST(SafeOutput, letsNothingThroughThatSteersATerminalInTextAndInJson)
{
  const std::pair<std::string, std::string> cases[] = {
      {"a\tb\n", "a\tb\n"},
      {"\x1b[2J\x1b]0;title\x07\r", R"(\u001b[2J\u001b]0;title\u0007\u000d)"},
      {"\x7f\xc2\x9b"
       "31m \x9b"
       "31m",
       "\\u007f\\u009b31m \xef\xbf\xbd"
       "31m"},
      {"txt.\xe2\x80\xae"
       "exe\xe2\x81\xa6\xe2\x80\xa8",
       R"(txt.\u202eexe\u2066\u2028)"},
      {"\xc3\xa4\xe2\x82\xac\xf0\x9f\xa4\x96", "\xc3\xa4\xe2\x82\xac\xf0\x9f\xa4\x96"},
      {"cut off \xe2\x80", "cut off \xef\xbf\xbd\xef\xbf\xbd"},
  };
  for (const auto& [text, expected] : cases)
  {
    std::ostringstream whole;
    std::ostringstream pieces;
    SafeOutput(whole) << text;
    SafeOutput slow(pieces);
    for (const char byte : text)
      slow << byte;
    slow.flush();
    EXPECT_EQ(whole.str(), expected);
    EXPECT_EQ(pieces.str(), expected) << "byte by byte";
    const vu::Value value(vu::validUtf8(text));
    std::ostringstream json;
    SafeOutput(json) << value.dump();
    EXPECT_EQ(vu::Value::parse(json.str()), value);
    EXPECT_EQ(json.str().find('\x7f'), std::string::npos);
  }
}

} // namespace Tarvik
