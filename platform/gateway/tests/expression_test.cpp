#include <stdexcept>

#include <gtest/gtest.h>

#include "expression.hpp"

using Tarvik::Expression;

TEST(Expression, ReadsACallWithItsArguments)
{
  const std::pair<const char*, const char*> cases[] = {
      {"S.m()", "[]"},
      {"S.m( )", "[]"},
      {" S.m ( 'a' , 1 ) ", R"(["a",1])"},
      {"S.m('a b/c.d')", R"(["a b/c.d"])"},
      {"S.m(\"it's\", 'say \"x\"')", R"(["it's","say \"x\""])"},
      {R"(S.m('it\'s', "\"", '\\', '\n\r\t'))", R"(["it's","\"","\\","\n\r\t"])"},
      {"S.m(true, false, null)", "[true,false,null]"},
      {"S.m(0, -7, 12345678901)", "[0,-7,12345678901]"},
      {"S.m(1.5, -0.25, 2e3)", "[1.5,-0.25,2000.0]"},
      {"S.m('a)', 'b,c')", "[\"a)\",\"b,c\"]"},
      {"S.m('')", R"([""])"},
      {"S.m('\xc3\xa4')", "[\"\xc3\xa4\"]"},
  };
  for (const auto& [text, arguments] : cases)
  {
    SCOPED_TRACE(text);
    const auto expression = Expression::parse(text);
    EXPECT_EQ(expression.service, "S");
    EXPECT_EQ(expression.method, "m");
    EXPECT_EQ(expression.arguments.dump(), arguments);
  }
  EXPECT_TRUE(Expression::parse("S.m(1)").arguments[0].is_number_integer());
  EXPECT_EQ(Expression::parse("ZBFrameManager._waitForStopped('1')").method, "_waitForStopped");
}

TEST(Expression, RefusesEverythingElseAndTellsThePosition)
{
  const std::pair<const char*, int> cases[] = {
      {"", 1},           {"S", 2},          {"S.", 3},           {"S.m", 4},        {".m()", 1},      {"1S.m()", 1},       {"S.m(", 5},
      {"S.m('a'", 8},    {"S.m('a", 7},     {"S.m('a\"", 8},     {"S.m('a',)", 9},  {"S.m(,'a')", 5}, {"S.m('a' 'b')", 9}, {"S.m(x)", 5},
      {"S.m(True)", 5},  {"S.m('a')b", 9},  {"S.m(1x)", 6},      {"S.m(1.2.3)", 8}, {"S.m(-)", 5},    {"S.m(1e999)", 5},   {"S.m([1])", 5},
      {"S.m('\\x')", 7}, {"S.m(S.n())", 5}, {"S.m(); S.n()", 6}, {"S.m.n()", 4},    {"S.m(nul)", 5},
  };
  for (const auto& [text, position] : cases)
  {
    SCOPED_TRACE(text);
    try
    {
      Expression::parse(text);
      ADD_FAILURE() << "accepted";
    }
    catch (const std::invalid_argument& error)
    {
      EXPECT_EQ(std::string(error.what()).rfind("position " + std::to_string(position) + " of", 0), 0u) << error.what();
    }
  }
}
