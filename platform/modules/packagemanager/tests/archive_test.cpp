#include <archive.hpp>

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "packagefixture.hpp"
#include <packageerror.hpp>
#include <packagetree.hpp>

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

namespace
{

class Archive : public PackageFixture
{
protected:
  Archive() { fs::create_directories(target); }

  /// Unpacks and checks, as installing does; the target is empty before.
  void unpack(const ZB::UnpackLimits& limits = {}) const
  {
    fs::remove_all(target);
    fs::create_directories(target);
    ZB::unpackArchive(zip, target, limits);
    ZB::checkTree(target);
  }

  std::string faultOf(const ZB::UnpackLimits& limits = {}) const
  {
    return errorOf<ZB::PackageError>([&] { unpack(limits); });
  }

  const fs::path zip = directory / "package.zip";
  const fs::path target = directory / "inner" / "target";
};

TEST_F(Archive, filesFoldersAndLinksAreUnpackedWithTheirExecutableBits)
{
  ZipWriter(zip)
      .folder("empty/")
      .file("./a.txt", "content")
      .file("bin/run.sh", "#!/bin/sh\n", 0755)
      .file("bin/suid", "x", 04711)
      .file("deep/er/b", std::string(200000, 'b'))
      .file("Gr\xc3\xbc\xc3\x9f.txt", "umlauts")
      .link("bin/again", "../deep/er/b");
  unpack();
  EXPECT_THAT(names(target), UnorderedElementsAre("empty", "a.txt", "bin", "deep", "Gr\xc3\xbc\xc3\x9f.txt"));
  EXPECT_EQ(read(target / "a.txt"), "content");
  EXPECT_EQ(read(target / "bin" / "again"), std::string(200000, 'b'));
  EXPECT_EQ(fs::status(target / "a.txt").permissions(), fs::perms(0644));
  EXPECT_EQ(fs::status(target / "bin" / "run.sh").permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(target / "bin" / "suid").permissions(), fs::perms(0755));
}

TEST_F(Archive, hostileEntriesAreRefusedByNameAndNothingLandsOutside)
{
  const struct
  {
    const char* what;
    std::function<void(ZipWriter&)> write;
    const char* fault;
  } cases[] = {
      {"parent", [](auto& w) { w.file("../escaped", "x"); }, "\"../escaped\" would land outside"},
      {"parent within", [](auto& w) { w.file("a/../../escaped", "x"); }, "would land outside"},
      {"absolute", [this](auto& w) { w.file((directory / "escaped").string(), "x"); }, "would land outside"},
      {"folder outside", [](auto& w) { w.folder("../escaped/"); }, "would land outside"},
      {"link to the parent", [](auto& w) { w.link("l", ".."); }, "the link \"l\" leads out of the package"},
      {"absolute link", [](auto& w) { w.link("l", "/etc/passwd"); }, "the link \"l\" leads out of the package, to \"/etc/passwd\""},
      {"link out and back in", [](auto& w) { w.file("a", "x").link("l", "../target/a"); }, "leads out of the package"},
      {"link through a link", [](auto& w) { w.file("a/b/c", "x").link("x", "a/b").link("y", "x/../../.."); },
       "the link \"y\" leads out of the package"},
      {"link to itself", [](auto& w) { w.link("l", "l"); }, "in a circle"},
      {"dangling link", [](auto& w) { w.link("l", "missing"); }, "leads nowhere: \"missing\""},
      {"file through a link", [](auto& w) { w.link("l", "..").file("l/escaped", "x"); }, "\"l\" has the place of another"},
      {"folder through a link", [](auto& w) { w.link("l", "/tmp").folder("l/escaped/"); }, "\"l\" has the place of another"},
      {"link for a file", [](auto& w) { w.file("a", "x").link("a", ".."); }, "\"a\" has the place of another"},
      {"entry twice", [](auto& w) { w.file("a", "1").file("./a", "2"); }, "\"a\" has the place of another"},
      {"file for a folder", [](auto& w) { w.file("a/b", "1").file("a", "2"); }, "\"a\" has the place of another"},
      {"folder for a file", [](auto& w) { w.file("a", "1").file("a/b", "2"); }, "\"a\" has the place of another"},
      {"the package itself", [](auto& w) { w.link(".", "/"); }, "the package's own place"},
      {"long link", [](auto& w) { w.link("l", std::string(5000, 'l')); }, "\"l\" cannot be made"},
      {"long name", [](auto& w) { w.file(std::string(300, 'n'), "x"); }, "cannot be made"},
      {"installer", [](auto& w) { w.file(".installer", "system"); }, ".installer"},
      {"installer in disguise", [](auto& w) { w.file("././/.installer", "system"); }, ".installer"},
  };
  for (const auto& [what, fill, fault] : cases)
  {
    SCOPED_TRACE(what);
    {
      ZipWriter writer(zip);
      fill(writer);
    }
    EXPECT_THAT(faultOf(), HasSubstr(fault));
    EXPECT_THAT(names(directory), UnorderedElementsAre("inner", "package.zip"));
    EXPECT_THAT(names(directory / "inner"), UnorderedElementsAre("target"));
    EXPECT_FALSE(fs::exists("/tmp/escaped"));
  }
}

TEST_F(Archive, entryThatClaimsToBeAPipeNeverBecomesOne)
{
  // No writer makes such entries. The type stands in the upper half of the
  // external attributes, in the directory at the archive's end.
  ZipWriter(zip).file("pipe", "");
  auto bytes = read(zip);
  const auto header = bytes.find("PK\x01\x02");
  ASSERT_NE(header, std::string::npos);
  bytes[header + 41] = static_cast<char>((bytes[header + 41] & 0x0f) | (010000 >> 8));
  write(zip, bytes);
  unpack();
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(target / "pipe")));
}

TEST_F(Archive, encryptedEntriesAreRefused)
{
  for (const auto* encryption : {"zip:encryption=traditional", "zip:encryption=aes256"})
  {
    SCOPED_TRACE(encryption);
    ZipWriter(zip, encryption).file("secret", "content");
    EXPECT_THAT(faultOf(), HasSubstr("\"secret\" is encrypted"));
  }
}

TEST_F(Archive, whatUnpacksBeyondTheLimitsIsRefused)
{
  ZipWriter(zip).file("a", std::string(100000, '\0')).file("b/c/d", std::string(100000, '\0')).link("e", "a");
  EXPECT_LT(fs::file_size(zip), 3000U) << "this is no bomb";
  EXPECT_NO_THROW(unpack({.bytes = 200001, .entries = 5}));
  EXPECT_THAT(faultOf({.bytes = 199999, .entries = 5}), HasSubstr("more than 199999 bytes; the limit was passed in \"b/c/d\""));
  EXPECT_THAT(faultOf({.bytes = 200001, .entries = 4}), HasSubstr("more than 4 entries"));
}

TEST_F(Archive, damagedArchivesAreRefusedWhereverTheyAreCut)
{
  write(zip, "this is no zip archive at all");
  EXPECT_THAT(faultOf(), HasSubstr("no zip archive"));
  write(zip, "");
  EXPECT_THAT(faultOf(), HasSubstr("no zip archive"));

  std::string noise;
  for (unsigned i = 0, state = 1; i < 4000; ++i, state = state * 1664525 + 1013904223)
    noise += static_cast<char>(state >> 24);
  ZipWriter(zip).file("a", noise).file("b", noise);
  const auto whole = read(zip);
  for (std::size_t length = 1; length < whole.size(); length += 97)
  {
    SCOPED_TRACE(length);
    write(zip, whole.substr(0, length));
    EXPECT_THROW(unpack(), ZB::PackageError);
  }
  auto changed = whole;
  changed[1000] ^= 1;
  write(zip, changed);
  EXPECT_THAT(faultOf(), HasSubstr("\"a\" is damaged"));
}

} // namespace
