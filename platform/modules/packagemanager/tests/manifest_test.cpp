#include <manifest.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packagefixture.hpp"
#include <packageerror.hpp>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

class Manifest : public PackageFixture
{
protected:
  vu::PackageInfo::Data parse(const std::string& text) const
  {
    write(directory / "manifest.xml", text);
    return ZB::readManifest(directory);
  }

  std::string faultOf(const std::string& text) const
  {
    return errorOf<ZB::PackageError>([&] { parse(text); });
  }

  void makeProject(const std::string& path) const { write(directory / path, "<project/>"); }
};

TEST_F(Manifest, wholeManifestIsRead)
{
  makeProject("hello/behavior.xar");
  makeProject("behavior.xar");
  const auto package = parse(R"(<?xml version="1.0"?>
<!-- made by hand -->
<package uuid="greetings" version="1.2.0">
  <name locale="en_US">Greetings</name>
  <description locale="en_US"> Says hello in <![CDATA[<several>]]> ways
  </description>
  <description locale="de_DE">Grüßt</description>
  <behavior path="hello" nature="solitary">
    <tag locale="en_US">greeting</tag>
    <tag locale="en">welcome</tag>
    <tag locale="en_US">a<!-- b -->c</tag>
  </behavior>
  <behavior path="."/>
</package>)");
  EXPECT_EQ(package.uuid, "greetings");
  EXPECT_EQ(package.version, "1.2.0");
  EXPECT_EQ(package.names.at("en_US"), "Greetings");
  EXPECT_EQ(package.descriptions.at("en_US"), "Says hello in <several> ways");
  EXPECT_EQ(package.descriptions.at("de_DE"), "Grüßt");
  ASSERT_EQ(package.behaviors.size(), 2U);
  EXPECT_EQ(package.behaviors.front().path(), "hello");
  EXPECT_EQ(package.behaviors.front().nature(), "solitary");
  EXPECT_THAT(package.behaviors.front().tags("en_US"), ElementsAre("greeting", "ac"));
  EXPECT_THAT(package.behaviors.front().tags("en"), ElementsAre("welcome"));
  EXPECT_EQ(package.behaviors.back().path(), ".");
  EXPECT_EQ(package.behaviors.back().nature(), "");
}

TEST_F(Manifest, uuidsOfTheAlphabetAreTakenAndNoOthers)
{
  const std::string longest(128, 'x');
  for (const auto& uuid : {std::string("a"), std::string("com.example.Dance-2_b"), std::string("0"), std::string("user"),
                           std::string("Users"), std::string("_-."), longest})
  {
    SCOPED_TRACE(uuid);
    EXPECT_EQ(parse("<package uuid='" + uuid + "'/>").uuid, uuid);
  }
  for (const auto& uuid :
       {std::string(), std::string(".a"), std::string("."), std::string(".."), std::string("a/b"), std::string("a b"), std::string("ä"),
        std::string("a&#10;b"), std::string("a:b"), std::string("a\\b"), longest + "x", std::string("User"), std::string("System")})
  {
    SCOPED_TRACE(uuid);
    EXPECT_THAT(faultOf("<package uuid='" + uuid + "'/>"), HasSubstr("the uuid "));
  }
}

TEST_F(Manifest, pathsOfTheAlphabetAreTakenAndNoOthers)
{
  const std::string longest(128, 'x');
  const std::pair<std::string, std::string> good[] = {{".", "behavior.xar"},
                                                      {"a", "a/behavior.xar"},
                                                      {"behavior.xar", "behavior.xar"},
                                                      {"a/b c/d-e_f.g", "a/b c/d-e_f.g/behavior.xar"},
                                                      {"a/behavior.xar", "a/behavior.xar"},
                                                      {".a/..b", ".a/..b/behavior.xar"},
                                                      {"behavior.xa", "behavior.xa/behavior.xar"},
                                                      {longest + "/" + longest, longest + "/" + longest + "/behavior.xar"}};
  for (const auto& [path, project] : good)
  {
    SCOPED_TRACE(path);
    const auto manifest = "<package uuid='p'><behavior path='" + path + "'/></package>";
    std::filesystem::remove(directory / project);
    EXPECT_THAT(faultOf(manifest), HasSubstr("the project file \"" + project + "\" is missing"));
    makeProject(project);
    EXPECT_EQ(parse(manifest).behaviors.front().path(), path);
  }
  for (const auto& path : {std::string(), std::string(".."), std::string("./a"), std::string("a/."), std::string("a/../b"),
                           std::string("/a"), std::string("a/"), std::string("a//b"), std::string("a\\b"), std::string("ä"),
                           std::string("a&#9;b"), std::string("a:b"), longest + "x", std::string("behavior.xar/a"),
                           std::string("mybehavior.xar"), std::string("a/behavior.xar.old"), std::string("behavior.xar.d/a")})
  {
    SCOPED_TRACE(path);
    EXPECT_THAT(faultOf("<package uuid='p'><behavior path='" + path + "'/></package>"), HasSubstr("the path "));
  }
}

TEST_F(Manifest, faultsAreToldWithLineAndThing)
{
  makeProject("a/behavior.xar");
  const struct
  {
    std::string text;
    std::string place;
    std::string thing;
  } cases[] = {
      {"", "line 1, offset 0", "no XML"},
      {"<package uuid='p'>\n<name locale='en'>A</name>\n</packag>", "line 3", "no XML"},
      {"<packages/>", "line 1", "\"packages\""},
      {"<package uuid='p'/>\n<package uuid='q'/>", "line 2", "expected one element"},
      {"<package/>", "line 1", "lacks the attribute \"uuid\""},
      {"<package uuid='p' id='7'/>", "line 1", "no attribute \"id\""},
      {"<package uuid='p' uuid='q'/>", "line 1", "given twice"},
      {"<package uuid='p'>\n  <icon/>\n</package>", "line 2, offset 22", "\"icon\" is unknown in \"package\""},
      {"<package uuid='p'>\n\nstray</package>", "line 1", "holds no text"},
      {"<package uuid='p'>\n<name>A</name></package>", "line 2", "lacks the attribute \"locale\""},
      {"<package uuid='p'>\n<name locale=''>A</name></package>", "line 2", "the locale is empty"},
      {"<package uuid='p'>\n<name locale='en'><b/></name></package>", "line 2", "\"b\" is unknown in \"name\""},
      {"<package uuid='p'><name locale='en'>A</name>\n<name locale='en'>B</name></package>", "line 2",
       "another \"name\" of the locale \"en\""},
      {"<package uuid='p'><description locale='en'>\xff</description></package>", "line 1", "not valid UTF-8"},
      {"<package uuid='p'>\n<behavior/></package>", "line 2", "lacks the attribute \"path\""},
      {"<package uuid='p'>\n<behavior path='a' name='b'/></package>", "line 2", "no attribute \"name\""},
      {"<package uuid='p'>\n<behavior path='a'><name locale='en'>A</name></behavior></package>", "line 2",
       "\"name\" is unknown in \"behavior\""},
      {"<package uuid='p'>\n<behavior path='a'><tag locale='en'> </tag></behavior></package>", "line 2", "the tag is empty"},
      {"<package uuid='p'>\n<behavior path='a'/>\n<behavior path='a'/></package>", "line 3", "the path \"a\" stands in the package twice"},
      {"<package uuid='p'>\n<behavior path='a'/>\n<behavior path='b'/></package>", "line 3", "\"b/behavior.xar\" is missing"},
  };
  for (const auto& [text, place, thing] : cases)
  {
    SCOPED_TRACE(text);
    EXPECT_THAT(faultOf(text), testing::AllOf(testing::StartsWith("manifest.xml, " + place), HasSubstr(thing)));
  }
}

TEST_F(Manifest, manifestThatIsNoFileIsAFault)
{
  EXPECT_THAT(errorOf<ZB::PackageError>([&] { ZB::readManifest(directory); }), HasSubstr("there is no manifest.xml"));
  std::filesystem::create_directory(directory / "manifest.xml");
  EXPECT_THAT(errorOf<ZB::PackageError>([&] { ZB::readManifest(directory); }), HasSubstr("cannot be read"));
}

TEST_F(Manifest, projectFileThatIsAFolderIsMissing)
{
  std::filesystem::create_directories(directory / "a" / "behavior.xar");
  EXPECT_THAT(faultOf("<package uuid='p'><behavior path='a'/></package>"), HasSubstr("is missing"));
}

} // namespace
