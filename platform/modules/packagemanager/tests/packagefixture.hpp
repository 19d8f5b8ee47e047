#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <gmock/gmock.h>

#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <vu/packageinfo.hpp>

using TestSupport::errorOf;
using TestSupport::namesIn;
using TestSupport::readFile;
using TestSupport::writeFile;

/// A folder of the test's own, with what packages are made of.
class PackageFixture : public testing::Test
{
protected:
  /// A package with the behavior "hello", in a folder called `name`.
  std::filesystem::path makePackage(const std::filesystem::path& name, const std::string& uuid, const std::string& version = "1") const
  {
    return TestSupport::writePackage(directory / name, uuid, {{"hello", ""}}, version);
  }

  static std::string manifest(const std::string& uuid, const std::string& version = "1")
  {
    return "<package uuid='" + uuid + "' version='" + version + "'><behavior path='hello'/></package>";
  }

  /// Each package as "uuid version installer".
  static std::vector<std::string> lines(const std::vector<vu::PackageInfo>& packages)
  {
    std::vector<std::string> result;
    for (const auto& package : packages)
      result.push_back(package.uuid() + " " + package.version() + " " + package.installer());
    return result;
  }

  const TestSupport::TemporaryDirectory directory;
};

/// Writes zip archives, hostile ones too.
class ZipWriter
{
public:
  explicit ZipWriter(const std::filesystem::path& file, const char* options = "")
  {
    archive_write_set_format_zip(_archive.get());
    archive_write_set_passphrase(_archive.get(), "secret");
    EXPECT_EQ(archive_write_set_options(_archive.get(), options), ARCHIVE_OK);
    EXPECT_EQ(archive_write_open_filename(_archive.get(), file.c_str()), ARCHIVE_OK);
  }

  ZipWriter& file(const std::string& name, const std::string& content, unsigned mode = 0644) { return add(name, AE_IFREG, mode, content); }
  ZipWriter& folder(const std::string& name) { return add(name, AE_IFDIR, 0755); }
  ZipWriter& link(const std::string& name, const std::string& target) { return add(name, AE_IFLNK, 0777, {}, target); }
  ZipWriter& package(const std::string& manifest) { return file("manifest.xml", manifest).file("hello/behavior.xar", "<project/>"); }

private:
  ZipWriter& add(const std::string& name, unsigned type, unsigned mode, const std::string& content = {}, const std::string& target = {})
  {
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), &archive_entry_free);
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), type);
    archive_entry_set_perm(entry.get(), mode);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
    if (!target.empty())
      archive_entry_set_symlink(entry.get(), target.c_str());
    EXPECT_EQ(archive_write_header(_archive.get(), entry.get()), ARCHIVE_OK) << archive_error_string(_archive.get());
    EXPECT_EQ(archive_write_data(_archive.get(), content.data(), content.size()), static_cast<la_ssize_t>(content.size()));
    return *this;
  }

  const std::unique_ptr<archive, int (*)(archive*)> _archive{archive_write_new(), &archive_write_free};
};
