#include <packages/manifest.hpp>

#include <gmock/gmock.h>

#include <testing/errors.hpp>
#include <testing/files.hpp>

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::errorOf;
using TestSupport::writeFile;
using Texts = std::vector<std::string>;

namespace
{

class Manifest : public testing::Test
{
protected:
  vu::PackageInfo::Data parse(const std::string& text) const
  {
    writeFile(directory / "manifest.xml", text);
    return packages::readManifest(directory);
  }

  const TestSupport::TemporaryDirectory directory;
};

TEST_F(Manifest, wholeManifestIsRead)
{
  writeFile(directory / "hello" / "behavior.xar", "<project/>");
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
  const auto parseUuid = [this](const std::string& uuid) { return parse("<package uuid='" + uuid + "'/>"); };
  const auto parsePath = [this](const std::string& path) { return parse("<package uuid='p'><behavior path='" + path + "'/></package>"); };
  for (const auto& uuid : Texts{"a", "com.example.Dance-2_b", "0", "user", "_-.", longest})
    EXPECT_EQ(parseUuid(uuid).uuid, uuid);
  for (const auto& path : Texts{".", "behavior.xar", "a/b c/d-e_f.g", "a/behavior.xar", ".a/..b", longest + "/" + longest})
  {
    writeFile(path.ends_with("behavior.xar") ? directory / path : directory / path / "behavior.xar", "<project/>");
    EXPECT_EQ(parsePath(path).behaviors.front().path(), path);
  }

  Texts uuids{"", ".a", "..", "a/b", "a b", "a:b", longest + "x"};
  Texts paths{
      "", "..", "./a", "a/.", "a/../b", "/a", "a/", "a//b", longest + "x", "behavior.xar/a", "mybehavior.xar", "a/behavior.xar.old"};
  for (const std::string character :
       {"ä", "\\", "%", ";", "`", "(", ")", "&lt;", "&gt;", "&quot;", "&apos;", "&amp;", "&#9;", "&#10;", "&#13;"})
    for (const auto& text : {character + "b", "a" + character, "a" + character + "b"})
      uuids.push_back(text), paths.push_back(text);
  for (const auto& uuid : uuids)
    EXPECT_THAT(errorOf([&] { parseUuid(uuid); }), HasSubstr("the uuid ")) << uuid;
  for (const auto& path : paths)
    EXPECT_THAT(errorOf([&] { parsePath(path); }), HasSubstr("the path ")) << path;
  for (const auto* uuid : {"User", "System"})
    EXPECT_THAT(errorOf([&] { parseUuid(uuid); }), HasSubstr("is reserved; choose another one")) << uuid;
}

TEST_F(Manifest, behaviorsMayCallWhatOperatorsMayTheMemoryAndWhatIsAskedFor)
{
  using vu::Role;
  const std::string admins = " Tokens.add Tokens.list PackageManager.install";
  const std::string always = "ZBMemory.insertData Arm.wave Arm.getState";
  const std::pair<const char*, std::string> cases[] = {
      {"", always},
      {"<may call='Tokens.add'/>", always + " Tokens.add"},
      {"<may call='Tokens.add'/><may call='PackageManager.*'/><may call='Tokens.add'/>", always + " Tokens.add PackageManager.install"},
      {"<may call='Tokens.*'/>", always + " Tokens.add Tokens.list"},
      {"<may call='Token.*'/><may call='Tokens.ad'/>", always},
      {"<may call='*'/>", always + admins}};
  for (const auto& [rights, allowed] : cases)
  {
    EXPECT_NO_THROW(parse("<package uuid='p'>" + std::string(rights) + "</package>"));
    const auto may = packages::readRights(directory);
    std::string found;
    for (const auto& [service, method, least] : {std::tuple("ZBMemory", "insertData", Role::Admin),
                                                 {"Arm", "wave", Role::Operator},
                                                 {"Arm", "getState", Role::Observer},
                                                 {"Tokens", "add", Role::Admin},
                                                 {"Tokens", "list", Role::Admin},
                                                 {"PackageManager", "install", Role::Admin}})
      if (may.allow(service, method, least))
        found += (found.empty() ? "" : " ") + std::string(service) + "." + method;
    EXPECT_EQ(found, allowed) << rights;
  }
  std::filesystem::remove(directory / "manifest.xml");
  EXPECT_EQ(packages::readRights(directory).refusal("Tokens", "add", Role::Admin),
            "the behavior may not call Tokens.add: its package's manifest does not say <may call=\"Tokens.add\"/>");
}

TEST_F(Manifest, faultsAreToldWithLineAndThing)
{
  EXPECT_THAT(errorOf([this] { packages::readManifest(directory); }), HasSubstr("there is no manifest.xml"));
  writeFile(directory / "a" / "behavior.xar", "<project/>");
  std::filesystem::create_directories(directory / "b" / "behavior.xar");
  const std::tuple<const char*, std::string, const char*> cases[] = {
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
      {"<package uuid='p'><description locale='en'>\xff</description></package>", "line 1", "not UTF-8"},
      {"<package uuid='p' version='1&#0;2'/>", "line 1, offset 28", "the reference &#0; stands for no character"},
      {"<package uuid='p'>\n<name locale='en'>A&#x1b;B</name></package>", "line 2", "&#x1b; stands"},
      {"<package uuid='p'>\n<may call='Tokens.add&#4294967296;x'/></package>", "line 2", "&#4294967296; stands"},
      {"<package uuid='p' version='\x1b[2J'/>", "line 1", "the control character 27"},
      {"<package uuid='p'>\n<may/></package>", "line 2", "lacks the attribute \"call\""},
      {"<package uuid='p'>\n<may call='*' for='a'/></package>", "line 2", "no attribute \"for\""},
      {"<package uuid='p'>\n<may call='*'>a</may></package>", "line 2", "holds no text"},
      {"<package uuid='p'>\n<behavior path='a' name='b'/></package>", "line 2", "no attribute \"name\""},
      {"<package uuid='p'>\n<behavior path='a'><tag locale='en'> </tag></behavior></package>", "line 2", "the tag is empty"},
      {"<package uuid='p'>\n<behavior path='a'/>\n<behavior path='a'/></package>", "line 3", "\"a\" stands in the package twice"},
      {"<package uuid='p'>\n<behavior path='a'/>\n<behavior path='b'/></package>", "line 3", "\"b/behavior.xar\" is missing"},
  };
  for (const auto* call : {"", "Tokens", "Tokens.", ".add", "*.add", "**", "Tokens.*x", "Tokens.add.x", "Tokens add", " *", "T\xc3\xa4.a"})
    EXPECT_THAT(errorOf([&] { parse("<package uuid='p'>\n<may call='" + std::string(call) + "'/></package>"); }),
                AllOf(StartsWith("manifest.xml, line 2"), HasSubstr("is neither \"Service.method\", \"Service.*\" nor \"*\"")))
        << call;
  for (const auto& [text, place, thing] : cases)
    EXPECT_THAT(errorOf([&, &text = text] { parse(text); }), AllOf(StartsWith("manifest.xml, " + place), HasSubstr(thing))) << text;
}

} // namespace
