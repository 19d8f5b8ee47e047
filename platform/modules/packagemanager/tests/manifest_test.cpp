#include <manifest.hpp>

#include "packagefixture.hpp"
#include <packageerror.hpp>

using testing::HasSubstr;
using testing::StartsWith;
using testing::ThrowsMessage;
using Texts = std::vector<std::string>;

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
};

TEST_F(Manifest, wholeManifestIsRead)
{
  write(directory / "hello" / "behavior.xar", "<project/>");
  const auto package = parse(R"(<?xml version="1.0"?>
<!-- made by hand -->
<package uuid="greetings" version="1.2.0">
  <name locale="en_US">Greetings</name>
  <description locale="en_US"> Says hello in <![CDATA[<several>]]> ways
  </description>
  <description locale="de_DE">Grüßt</description>
  <behavior path="hello" nature="solitary">
    <tag locale="en">welcome</tag>
    <tag locale="en_US">a<!-- b -->c</tag>
  </behavior>
</package>)");
  EXPECT_EQ(package.uuid + " " + package.version + " " + package.names.at("en_US"), "greetings 1.2.0 Greetings");
  EXPECT_EQ(package.descriptions.at("en_US"), "Says hello in <several> ways");
  EXPECT_EQ(package.descriptions.at("de_DE"), "Grüßt");
  ASSERT_EQ(package.behaviors.size(), 1U);
  EXPECT_EQ(package.behaviors.front().path() + " " + package.behaviors.front().nature(), "hello solitary");
  EXPECT_THAT(package.behaviors.front().tags("en_US"), testing::ElementsAre("ac"));
}

TEST_F(Manifest, uuidsAndPathsOfTheAlphabetAreTakenAndNoOthers)
{
  const std::string longest(128, 'x');
  for (const auto& uuid : Texts{"a", "com.example.Dance-2_b", "0", "user", "_-.", longest})
    EXPECT_EQ(parse("<package uuid='" + uuid + "'/>").uuid, uuid);
  for (const auto& uuid : Texts{"", ".a", "..", "a/b", "a b", "ä", "a&#10;b", "a:b", "a\\b", "&lt;script>", "a&gt;b", "a&quot;b", "a&apos;b",
                                "a&amp;b", "a&#13;", "a&#127;", "a%3c", "a;b", "a`b", "a(b)", longest + "x", "User", "System"})
    EXPECT_THAT([&] { parse("<package uuid='" + uuid + "'/>"); }, ThrowsMessage<ZB::PackageError>(HasSubstr("the uuid "))) << uuid;

  const auto parsePath = [this](const std::string& path) { return parse("<package uuid='p'><behavior path='" + path + "'/></package>"); };
  for (const auto& [path, project] : {std::pair<std::string, std::string>{".", "behavior.xar"},
                                      {"behavior.xar", "behavior.xar"},
                                      {"a/b c/d-e_f.g", "a/b c/d-e_f.g/behavior.xar"},
                                      {"a/behavior.xar", "a/behavior.xar"},
                                      {".a/..b", ".a/..b/behavior.xar"},
                                      {longest + "/" + longest, longest + "/" + longest + "/behavior.xar"}})
  {
    write(directory / project, "<project/>");
    EXPECT_EQ(parsePath(path).behaviors.front().path(), path);
  }
  for (const auto& path : Texts{"", "..", "./a", "a/.", "a/../b", "/a", "a/", "a//b", "a\\b", "ä", "a&#9;b", "&lt;script>", "a&gt;b", "a&quot;b", "a&apos;b", "a&amp;b",
                                "a&#10;b", "a&#13;b", "a&#127;", "a%3c", "a;b", "a`b", "a(b)", longest + "x",
                                "behavior.xar/a", "mybehavior.xar", "a/behavior.xar.old"})
    EXPECT_THAT([&] { parsePath(path); }, ThrowsMessage<ZB::PackageError>(HasSubstr("the path "))) << path;
}

TEST_F(Manifest, faultsAreToldWithLineAndThing)
{
  EXPECT_THAT([&] { ZB::readManifest(directory); }, ThrowsMessage<ZB::PackageError>(HasSubstr("there is no manifest.xml")));
  write(directory / "a" / "behavior.xar", "<project/>");
  std::filesystem::create_directories(directory / "b" / "behavior.xar");
  const struct
  {
    const char* text;
    const char* place;
    const char* thing;
  } cases[] = {
      {"", "line 1, offset 0", "no XML"},
      {"<package uuid='p'>\n<name locale='en'>A</name>\n</packag>", "line 3", "no XML"},
      {"<packages/>", "line 1", "\"packages\""},
      {"<package uuid='p'/>\n<package uuid='q'/>", "line 2", "expected one element"},
      {"<package/>", "line 1", "lacks the attribute \"uuid\""},
      {"<package uuid='p' uuid='q'/>", "line 1", "given twice"},
      {"<package uuid='p'>\n  <icon/>\n</package>", "line 2, offset 22", "\"icon\" is unknown in \"package\""},
      {"<package uuid='p'>\n\nstray</package>", "line 1", "holds no text"},
      {"<package uuid='p'>\n<name>A</name></package>", "line 2", "lacks the attribute \"locale\""},
      {"<package uuid='p'><name locale='en'>A</name>\n<name locale='en'>B</name></package>", "line 2", "another \"name\""},
      {"<package uuid='p'><description locale='en'>\xff</description></package>", "line 1", "not valid UTF-8"},
      {"<package uuid='p'>\n<behavior path='a' name='b'/></package>", "line 2", "no attribute \"name\""},
      {"<package uuid='p'>\n<behavior path='a'><tag locale='en'> </tag></behavior></package>", "line 2", "the tag is empty"},
      {"<package uuid='p'>\n<behavior path='a'/>\n<behavior path='a'/></package>", "line 3", "\"a\" stands in the package twice"},
      {"<package uuid='p'>\n<behavior path='a'/>\n<behavior path='b'/></package>", "line 3", "\"b/behavior.xar\" is missing"},
  };
  for (const auto& [text, place, thing] : cases)
    EXPECT_THAT([&] { parse(text); },
                ThrowsMessage<ZB::PackageError>(testing::AllOf(StartsWith(std::string("manifest.xml, ") + place), HasSubstr(thing))))
        << text;
}

} // namespace
