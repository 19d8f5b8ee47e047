#include <archive.hpp>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <set>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include <packages/packageerror.hpp>
#include <vu/text.hpp>

namespace ZB
{

namespace fs = std::filesystem;
using packages::PackageError;
using vu::inQuotes;

namespace
{

[[noreturn]] void failToWrite(const fs::path& path)
{
  throw fs::filesystem_error("cannot write", path, std::error_code(errno, std::generic_category()));
}

class Unpacker
{
public:
  Unpacker(const fs::path& target, const UnpackLimits& limits)
      : _target(target), _limits(limits), _reader(archive_read_new(), &archive_read_free)
  {
    if (!_reader)
      throw std::bad_alloc();
  }

  void unpack(const fs::path& file)
  {
    // The directory at a zip's end tells the type of every entry; a reader of
    // streams would take links for files.
    archive_read_support_format_zip_seekable(_reader.get());
    if (archive_read_open_filename(_reader.get(), file.c_str(), 65536) != ARCHIVE_OK)
      throw PackageError("this is no zip archive: " + problem());
    while (true)
    {
      archive_entry* entry = nullptr;
      const int result = archive_read_next_header(_reader.get(), &entry);
      if (result == ARCHIVE_EOF)
        break;
      if (result < ARCHIVE_WARN)
        throw PackageError((_entries == 0 ? "this is no zip archive, or a damaged one: " : "the archive is damaged: ") + problem());
      unpackEntry(entry);
    }
    // Last, so that no entry is ever written through a link.
    for (const auto& [path, linkTarget] : _links)
    {
      makeFolders(path.parent_path());
      if (::symlink(linkTarget.c_str(), (_target / path).c_str()) != 0)
        failOnEntry(path);
    }
  }

private:
  std::string problem() const
  {
    const char* text = archive_error_string(_reader.get());
    return text ? text : "unknown fault";
  }

  void unpackEntry(archive_entry* entry)
  {
    const char* name = archive_entry_pathname_utf8(entry);
    if (!name)
      name = archive_entry_pathname(entry);
    if (!name)
      throw PackageError("the archive holds an entry without a name");
    const auto path = checkedPath(name);
    if (archive_entry_is_encrypted(entry))
      throw PackageError("the entry " + inQuotes(name) + " is encrypted; pack it without a password");
    const auto type = archive_entry_filetype(entry);
    if (archive_entry_hardlink(entry) || (type != AE_IFREG && type != AE_IFDIR && type != AE_IFLNK))
      throw PackageError("the entry " + inQuotes(name) + " is neither a file, a folder nor a link; remove it from the package");
    if (type == AE_IFDIR)
      makeFolders(path);
    else if (path.empty())
      throw PackageError("the entry " + inQuotes(name) + " is no folder, yet it has the package's own place");
    else if (type == AE_IFREG)
      writeFile(path, archive_entry_perm(entry));
    else
    {
      count(path);
      const char* linkTarget = archive_entry_symlink_utf8(entry);
      if (!linkTarget)
        linkTarget = archive_entry_symlink(entry);
      _links.emplace_back(path, linkTarget ? linkTarget : "");
      countBytes(_links.back().second.size(), path);
    }
  }

  /// Relative, without "." and empty parts; empty for the target itself.
  static fs::path checkedPath(const std::string& name)
  {
    const fs::path given(name);
    fs::path path;
    for (const auto& part : given)
    {
      if (given.is_absolute() || part == "..")
        throw PackageError("the entry " + inQuotes(name) + " would land outside the package");
      if (!part.empty() && part != ".")
        path /= part;
    }
    return path;
  }

  void count(const fs::path& path)
  {
    if (++_entries > _limits.entries)
      throw PackageError("the archive holds more than " + std::to_string(_limits.entries) + " entries; the first beyond is " +
                         inQuotes(path.string()));
  }

  /// As they come, since sizes in the archive may lie.
  void countBytes(std::uintmax_t bytes, const fs::path& path)
  {
    _bytes += bytes;
    if (_bytes > _limits.bytes)
      throw PackageError("the archive unpacks to more than " + std::to_string(_limits.bytes) + " bytes; the limit was passed in " +
                         inQuotes(path.string()));
  }

  void makeFolders(const fs::path& path)
  {
    if (path.empty() || _folders.contains(path))
      return;
    makeFolders(path.parent_path());
    count(path);
    if (::mkdir((_target / path).c_str(), 0755) != 0)
      failOnEntry(path);
    _folders.insert(path);
  }

  void writeFile(const fs::path& path, mode_t mode)
  {
    makeFolders(path.parent_path());
    count(path);
    const int descriptor = ::open((_target / path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0)
      failOnEntry(path);
    try
    {
      writeContent(descriptor, path);
      if (::fchmod(descriptor, 0644 | (mode & 0111)) != 0)
        failToWrite(_target / path);
    }
    catch (...)
    {
      ::close(descriptor);
      throw;
    }
    if (::close(descriptor) != 0)
      failToWrite(_target / path);
  }

  void writeContent(int descriptor, const fs::path& path)
  {
    std::vector<char> buffer(65536);
    while (true)
    {
      const auto length = archive_read_data(_reader.get(), buffer.data(), buffer.size());
      if (length < 0)
        throw PackageError("the entry " + inQuotes(path.string()) + " is damaged: " + problem());
      if (length == 0)
        return;
      countBytes(static_cast<std::uintmax_t>(length), path);
      for (la_ssize_t written = 0; written < length;)
      {
        const auto step = ::write(descriptor, buffer.data() + written, static_cast<std::size_t>(length - written));
        if (step < 0 && errno != EINTR)
          failToWrite(_target / path);
        written += std::max<la_ssize_t>(step, 0);
      }
    }
  }

  [[noreturn]] void failOnEntry(const fs::path& path) const
  {
    if (errno == EEXIST || errno == ENOTDIR)
      throw PackageError("the entry " + inQuotes(path.string()) + " has the place of another one");
    if (errno == ENAMETOOLONG || errno == ENOENT)
      throw PackageError("the entry " + inQuotes(path.string()) + " cannot be made: " + std::generic_category().message(errno));
    failToWrite(_target / path);
  }

  const fs::path _target;
  const UnpackLimits _limits;
  const std::unique_ptr<::archive, int (*)(::archive*)> _reader;
  std::uintmax_t _bytes = 0;
  std::uintmax_t _entries = 0;
  std::set<fs::path> _folders;
  std::vector<std::pair<fs::path, std::string>> _links;
};

} // namespace

void unpackArchive(const fs::path& archive, const fs::path& target, const UnpackLimits& limits)
{
  Unpacker(target, limits).unpack(archive);
}

} // namespace ZB
