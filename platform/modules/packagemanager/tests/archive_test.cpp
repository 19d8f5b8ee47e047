#include <archive.hpp>

#include "packagefixture.hpp"
#include <packages/packageerror.hpp>
#include <packages/packagetree.hpp>

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

class Archive : public PackageFixture
{
protected:
  /// Unpacks and checks, as installing does; the target is empty before.
  void unpack(const ZB::UnpackLimits& limits = {}) const
  {
    fs::remove_all(target);
    fs::create_directories(target);
    ZB::unpackArchive(zip, target, limits);
    packages::checkTree(target);
  }

  void expectFault(const std::string& fault, const ZB::UnpackLimits& limits = {}) const
  {
    EXPECT_THAT(TestSupport::serviceErrorOf([&] { unpack(limits); }).description(), HasSubstr(fault));
  }

  const fs::path zip = directory / "package.zip";
  const fs::path target = directory / "inner" / "target";
};

TEST_F(Archive, filesFoldersAndLinksAreUnpackedWithTheirExecutableBits)
{
  const std::string large(200000, 'b');
  ZipWriter(zip).folder("empty/").file("./a", "content").file("bin/suid", "x", 04711).file("ß/b", large).link("bin/again", "../ß/b");
  unpack();
  EXPECT_THAT(namesIn(target), ElementsAre("a", "bin", "empty", "ß"));
  EXPECT_EQ(readFile(target / "a"), "content");
  EXPECT_EQ(readFile(target / "bin" / "again"), large);
  EXPECT_EQ(fs::status(target / "a").permissions(), fs::perms(0644));
  EXPECT_EQ(fs::status(target / "bin" / "suid").permissions(), fs::perms(0755));
}

TEST_F(Archive, hostileEntriesAreRefusedByNameAndNothingLandsOutside)
{
  const std::pair<std::function<void(ZipWriter&)>, const char*> cases[] = {
      {[](auto& w) { w.file("../escaped", "x"); }, "\"../escaped\" would land outside"},
      {[](auto& w) { w.file("a/../../escaped", "x"); }, "would land outside"},
      {[this](auto& w) { w.file((directory / "escaped").string(), "x"); }, "would land outside"},
      {[](auto& w) { w.folder("../escaped/"); }, "would land outside"},
      {[](auto& w) { w.link("l", "/etc/passwd"); }, "the link \"l\" leads out of the package, to \"/etc/passwd\""},
      {[](auto& w) { w.file("a", "x").link("l", "../target/a"); }, "leads out of the package"},
      {[](auto& w) { w.file("a/b/c", "x").link("x", "a/b").link("y", "x/../../.."); }, "the link \"y\" leads out of the package"},
      {[](auto& w) { w.link("l", "l"); }, "in a circle"},
      {[](auto& w) { w.link("l", "missing"); }, "leads nowhere: \"missing\""},
      {[](auto& w) { w.link("l", "..").file("l/escaped", "x"); }, "\"l\" has the place of another"},
      {[](auto& w) { w.link("l", "..").folder("l/escaped/"); }, "\"l\" has the place of another"},
      {[](auto& w) { w.file("a", "x").link("a", ".."); }, "\"a\" has the place of another"},
      {[](auto& w) { w.file("a", "1").file("./a", "2"); }, "\"a\" has the place of another"},
      {[](auto& w) { w.file("a/b", "1").file("a", "2"); }, "\"a\" has the place of another"},
      {[](auto& w) { w.link(".", "/"); }, "the package's own place"},
      {[](auto& w) { w.file(std::string(300, 'n'), "x"); }, "cannot be made"},
      {[](auto& w) { w.file("././/.installer", "system"); }, ".installer"},
  };
  for (const auto& [fill, fault] : cases)
  {
    SCOPED_TRACE(fault);
    fill(*std::make_unique<ZipWriter>(zip));
    expectFault(fault);
    EXPECT_THAT(namesIn(directory), ElementsAre("inner", "package.zip"));
    EXPECT_THAT(namesIn(directory / "inner"), ElementsAre("target"));
  }
}

TEST_F(Archive, bombsAndEncryptedArchivesAreRefused)
{
  ZipWriter(zip).file("a", std::string(100000, '\0')).file("b/c/d", std::string(100000, '\0')).link("e", "a");
  EXPECT_NO_THROW(unpack({.bytes = 200001, .entries = 5}));
  expectFault("more than 199999 bytes; the limit was passed in \"b/c/d\"", {.bytes = 199999, .entries = 5});
  expectFault("more than 4 entries", {.bytes = 200001, .entries = 4});
  for (const auto* encryption : {"zip:encryption=traditional", "zip:encryption=aes256"})
  {
    ZipWriter(zip, encryption).file("secret", "content");
    expectFault("\"secret\" is encrypted");
  }
}

TEST_F(Archive, damagedArchivesAreRefusedWhereverTheyAreCut)
{
  writeFile(zip, "this is no zip archive at all");
  expectFault("no zip archive");
  std::string noise;
  for (unsigned i = 0, state = 1; i < 4000; ++i, state = state * 1664525 + 1013904223)
    noise += static_cast<char>(state >> 24);
  ZipWriter(zip).file("a", noise).file("b", noise);
  auto whole = readFile(zip);
  for (std::size_t length = 0; length < whole.size(); length += 97)
  {
    writeFile(zip, whole.substr(0, length));
    EXPECT_THROW(unpack(), packages::PackageError) << length;
  }
  whole[1000] ^= 1;
  writeFile(zip, whole);
  expectFault("\"a\" is damaged");
}

} // namespace
