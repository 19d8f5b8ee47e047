#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <packages/projectfile.hpp>
#include <packages/projectreader.hpp>
#include <packages/shellwords.hpp>
#include <testing/errors.hpp>
#include <testing/files.hpp>

using namespace packages;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

std::string faultOf(const std::string& text)
{
  return TestSupport::errorOf([&] { parseProject(text, "/p/behavior.xar", "behavior.xar"); });
}

std::string nested(int depth)
{
  std::string text = "<sequence/>";
  for (int i = 1; i < depth; ++i)
    text = "<sequence>" + text + "</sequence>";
  return "<project format=\"1\">" + text + "</project>";
}

std::string withStep(const std::string& step) { return "<project format=\"1\" name=\"t\">\n " + step + "\n</project>"; }

template <typename Action> const Action& onlyStep(const Project& project)
{
  return std::get<Action>(std::get<SequenceStep>(project.root.action).steps.at(0).action);
}

} // namespace

TEST(ProjectReader, ReadsEveryStepWithItsTitle)
{
  const auto project = parseProject(R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- Everything that there is. -->
<project format="1" name="all">
  <event key="Demo/Hello" value='{"a": [1]}'/>
  <wait seconds="0.5"/>
  <repeat count="3">
    <call service="ZBMemory" method="insertData" arguments='["Demo/Count", 1]'/>
  </repeat>
  <repeat><wait seconds="1e3"/></repeat>
  <parallel>
    <run command="python3 'a b.py' --slow" timeout="10"/>
    <sequence> <log message="waving"/> </sequence>
  </parallel>
  <fail reason="no arm"/>
</project>)",
                                    "/p/all/behavior.xar", "all/behavior.xar");
  EXPECT_EQ(project.name, "all");
  const auto& steps = std::get<SequenceStep>(project.root.action).steps;
  ASSERT_EQ(steps.size(), 6u);
  EXPECT_EQ(steps[0].title, "event Demo/Hello (all/behavior.xar:4)");
  EXPECT_EQ(std::get<EventStep>(steps[0].action).value, vu::Value::parse(R"({"a": [1]})"));
  EXPECT_EQ(std::get<WaitStep>(steps[1].action).duration, std::chrono::milliseconds(500));
  const auto& repeat = std::get<SequenceStep>(steps[2].action);
  EXPECT_EQ(repeat.count, 3u);
  EXPECT_EQ(repeat.steps.at(0).title, "call ZBMemory.insertData (all/behavior.xar:7)");
  EXPECT_EQ(std::get<CallStep>(repeat.steps.at(0).action).arguments, vu::Value::parse(R"(["Demo/Count", 1])"));
  EXPECT_FALSE(std::get<SequenceStep>(steps[3].action).count);
  const auto& parallel = std::get<ParallelStep>(steps[4].action);
  const auto& run = std::get<ProgramStep>(parallel.steps.at(0).action);
  EXPECT_THAT(run.words, ElementsAre("python3", "a b.py", "--slow"));
  EXPECT_EQ(run.timeout, std::chrono::seconds(10));
  EXPECT_EQ(parallel.steps.at(0).title, "run python3 (all/behavior.xar:11)");
  EXPECT_EQ(std::get<FailStep>(steps[5].action).reason, "no arm");
}

TEST(ProjectReader, TakesAnEventValueThatIsNoJsonForAText)
{
  for (const auto& [text, value] : std::map<std::string, vu::Value>{{"1", 1},
                                                                    {"-0.5", -0.5},
                                                                    {"true", true},
                                                                    {"null", nullptr},
                                                                    {"[]", vu::Value::array()},
                                                                    {"hello", "hello"},
                                                                    {"", ""},
                                                                    {"1 2", "1 2"},
                                                                    {"NaN", "NaN"}})
  {
    SCOPED_TRACE(text);
    EXPECT_EQ(onlyStep<EventStep>(parseProject(withStep("<event key=\"k\" value=\"" + text + "\"/>"), "f", "f")).value, value);
  }
}

TEST(ProjectReader, NamesFileLineOffsetAndReasonOfEveryFault)
{
  const char* const in = ":2 (offset 31): ";
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"", ":1 (offset 0): ", "there is no <project>"},
      {"<package/>", ":1 (offset 0): ", "the root must be <project>, not <package>"},
      {"text<project format=\"1\"/>", ":1 ", "the root must be <project>, not text"},
      {"<project format=\"1\"/>\n<project format=\"1\"/>", ":2 (offset 22): ", "nothing after"},
      {"<project format=\"1\"/>\ntext", ":", "nothing after"},
      {"<project name=\"t\"/>", ":1 (offset 0): ", "needs the attribute \"format\""},
      {"<project format=\"2\"/>", ":1 (offset 0): ", "the format \"2\" is not known"},
      {"<project format=\"1\" colour=\"red\"/>", ":1 (offset 0): ", "has no attribute \"colour\"; it takes format, name"},
      {"<project format=\"1\">\n<wait", ":2 ", "the XML is damaged"},
      {"<project format=\"1\">\n<wait seconds=\"1\"/>\n</projekt>", ":3 ", "the XML is damaged"},
      {"<project format=\"1\">\n\xff</project>", ":2 (offset 21): ", "not UTF-8"},
      {std::string("<project format=\"1\">\n\0</project>", 32), ":2 (offset 21): ", "zero byte"},
      {withStep("<log message=\"a&#0;b\"/>"), ":2 (offset 47): ", "the reference &#0; stands for no character that a text may hold"},
      {withStep("<log message=\"&#x9b;\"/>"), ":2 ", "the reference &#x9b; stands for no character"},
      {withStep("text"), ":", "text has no meaning in <project>"},
      {withStep("<dance/>"), in, "<dance> is not known; the steps are"},
      {withStep("<wait/>"), in, "<wait> needs the attribute \"seconds\""},
      {withStep("<wait seconds=\"1\" second=\"1\"/>"), in, "<wait> has no attribute \"second\""},
      {withStep("<wait seconds=\"1\" seconds=\"2\"/>"), in, "\"seconds\" twice"},
      {withStep("<wait seconds=\"1\"><log message=\"\"/></wait>"), ":2 ", "<wait> takes nothing inside"},
      {withStep("<sequence count=\"2\"/>"), in, "<sequence> has no attribute \"count\""},
      {withStep("<parallel name=\"p\"/>"), in, "<parallel> has no attribute \"name\""},
      {withStep("<repeat/>"), in, "nothing for ever"},
      {withStep("<event value=\"1\"/>"), in, "needs the attribute \"key\""},
      {withStep("<event key=\"\" value=\"1\"/>"), in, "\"key\" of <event> is empty"},
      {withStep("<event key=\"k\"/>"), in, "needs the attribute \"value\""},
      {withStep("<event key=\"k\" value=\"1e999\"/>"), in, "out of range"},
      {withStep("<call service=\"S\"/>"), in, "needs the attribute \"method\""},
      {withStep("<call service=\"S\" method=\"m\" arguments=\"[1\"/>"), in, "no JSON"},
      {withStep("<call service=\"S\" method=\"m\" arguments=\"1\"/>"), in, "must be a JSON array like [\"text\", 1], not \"1\""},
      {withStep("<call service=\"S\" method=\"m\" arguments=\"" + std::string(200, '[') + std::string(200, ']') + "\"/>"), in, "too deep"},
      {withStep("<run command=\"\"/>"), in, "\"command\" of <run> is empty"},
      {withStep("<run command=\"  \"/>"), in, "names no program"},
      {withStep("<run command=\"'' a\"/>"), in, "names no program"},
      {withStep("<run command=\"echo 'a\"/>"), in, "the quote ' is not closed"},
      {withStep("<run command=\"echo a\\\"/>"), in, "a backslash at the end"},
      {withStep("<run command=\"true\" timeout=\"0\"/>"), in, "more than 0"},
      {withStep("<log/>"), in, "needs the attribute \"message\""},
      {withStep("<fail reason=\"\"/>"), in, "\"reason\" of <fail> is empty"},
      {nested(projectDepthLimit + 1), ":1 ", "deep in each other"},
  };
  for (const auto& [text, place, reason] : cases)
    EXPECT_THAT(faultOf(text), AllOf(HasSubstr(std::string("/p/behavior.xar") + place), HasSubstr(reason))) << text.substr(0, 200);
  EXPECT_EQ(faultOf(nested(projectDepthLimit)), "no error");
}

TEST(ProjectReader, RefusesNumbersThatMakeNoSense)
{
  for (const std::string number : {"", "-1", "-0.001", "nan", "inf", "1e10", "1e999", "1s", "0x10", "1,5", " 1", "+1", "one"})
  {
    SCOPED_TRACE(number);
    EXPECT_THAT(faultOf(withStep("<wait seconds=\"" + number + "\"/>")), HasSubstr("must be a number of seconds"));
    EXPECT_THAT(faultOf(withStep("<run command=\"true\" timeout=\"" + number + "\"/>")), HasSubstr("must be a number of seconds"));
    EXPECT_THAT(faultOf(withStep("<repeat count=\"" + number + "\"/>")), HasSubstr("must be a whole number"));
  }
  EXPECT_THAT(faultOf(withStep("<repeat count=\"1.5\"/>")), HasSubstr("must be a whole number"));
  EXPECT_THAT(faultOf(withStep("<repeat count=\"99999999999999999999999\"/>")), HasSubstr("must be a whole number"));
  for (const std::string number : {"0", "0.0", "2.5", "1e-3", "1e9"})
    EXPECT_EQ(faultOf(withStep("<wait seconds=\"" + number + "\"/>")), "no error") << number;
}

TEST(ShellWords, SplitsAsAShellDoesWithoutExpanding)
{
  EXPECT_THAT(shellWords("  a\tb  c "), ElementsAre("a", "b", "c"));
  EXPECT_THAT(shellWords(R"('a b' "c d" e\ f)"), ElementsAre("a b", "c d", "e f"));
  EXPECT_THAT(shellWords(R"(a'b'"c"d '' "")"), ElementsAre("abcd", "", ""));
  EXPECT_THAT(shellWords(R"("a\"b\\c\$d\e" 'a\b')"), ElementsAre(R"(a"b\c$d\e)", R"(a\b)"));
  EXPECT_THAT(shellWords(R"("it's" 'say "x"')"), ElementsAre("it's", R"(say "x")"));
  EXPECT_THAT(shellWords("$HOME *.py ~ `id` a|b;c"), ElementsAre("$HOME", "*.py", "~", "`id`", "a|b;c"));
  EXPECT_THAT(shellWords(""), ElementsAre());
  for (const char* text : {"'a", "\"a", "a\\", "\"a\\", "\"a\\\""})
    EXPECT_THROW(shellWords(text), std::invalid_argument) << text;
}

TEST(ProjectFileTest, OnlyARegularFileInsideAnAbsoluteDirectoryIsRead)
{
  const TestSupport::TemporaryDirectory root;
  const auto package = root / "package";
  for (const auto& file : {package / "hello/behavior.xar", root / "behavior.xar"})
    TestSupport::writeFile(file, TestSupport::project(""));
  std::filesystem::create_symlink(root.path(), package / "out");
  std::filesystem::create_symlink("hello", package / "alias");
  ASSERT_EQ(::mkfifo((package / "pipe").c_str(), 0600), 0);
  TestSupport::writeFile(package / "huge", std::string(projectFileLimit + 1, ' '));

  const std::string directory = package.string();
  for (const auto& [base, file] : {std::pair(directory, "alias/behavior.xar"), {directory + "/", "./hello/../hello/behavior.xar"}})
    EXPECT_EQ(readProject(base, file).directory, std::filesystem::canonical(package / "hello"));
  const std::tuple<std::string, std::string, const char*> cases[] = {{"", "behavior.xar", "must be an absolute path, not \"\""},
                                                                     {"package", "behavior.xar", "must be an absolute path"},
                                                                     {(root / "none").string(), "behavior.xar", "/none: No such file"},
                                                                     {directory, "", "relative to"},
                                                                     {directory, (package / "hello/behavior.xar").string(), "relative to"},
                                                                     {directory, "../behavior.xar", "lies outside"},
                                                                     {directory, "hello/../../behavior.xar", "lies outside"},
                                                                     {directory, "out/behavior.xar", "a link that leads out"},
                                                                     {directory, "none/behavior.xar", "No such file"},
                                                                     {directory, "hello", "not a regular file"},
                                                                     {directory, "pipe", "not a regular file"},
                                                                     {directory, "huge", "longer than"}};
  for (const auto& [base, file, reason] : cases)
    EXPECT_THAT(TestSupport::errorOf([&, &base = base, &file = file] { loadProjectFile(base, file); }), HasSubstr(reason)) << file;
}
