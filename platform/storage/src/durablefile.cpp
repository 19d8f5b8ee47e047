#include <storage/durablefile.hpp>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace storage
{

namespace fs = std::filesystem;

namespace
{

constexpr std::string_view temporarySuffix = ".writing";

[[noreturn]] void fail(const char* what, const fs::path& path, int error = errno)
{
  throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

class Descriptor
{
public:
  Descriptor(int descriptor, const fs::path& path) : _descriptor(descriptor), _path(path)
  {
    if (_descriptor < 0)
      fail("cannot open", path);
  }
  ~Descriptor()
  {
    if (_descriptor >= 0)
      ::close(_descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void write(std::string_view content) const
  {
    while (!content.empty())
    {
      const auto written = ::write(_descriptor, content.data(), content.size());
      if (written < 0 && errno == EINTR)
        continue;
      if (written < 0)
        fail("cannot write", _path);
      content.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  std::string read(std::uintmax_t limit) const
  {
    std::string content;
    char buffer[16384];
    while (true)
    {
      const auto length = ::read(_descriptor, buffer, sizeof buffer);
      if (length < 0 && errno == EINTR)
        continue;
      if (length < 0)
        fail("cannot read", _path);
      if (length == 0)
        return content;
      content.append(buffer, static_cast<std::size_t>(length));
      if (content.size() > limit)
        fail("cannot read", _path, EFBIG);
    }
  }

  void sync() const
  {
    if (::fsync(_descriptor) != 0)
      fail("cannot write to the disk", _path);
  }

  /// Some file systems report a failed write only here.
  void close()
  {
    if (::close(std::exchange(_descriptor, -1)) != 0)
      fail("cannot close", _path);
  }

private:
  int _descriptor;
  const fs::path _path;
};

} // namespace

void writeFileDurably(const fs::path& file, std::string_view content)
{
  auto name = (file.parent_path() / ("." + file.filename().string() + ".XXXXXX" + std::string(temporarySuffix))).string();
  Descriptor descriptor(::mkostemps(name.data(), static_cast<int>(temporarySuffix.size()), O_CLOEXEC), name);
  try
  {
    descriptor.write(content);
    descriptor.sync();
    descriptor.close();
    fs::rename(name, file);
  }
  catch (...)
  {
    ::unlink(name.c_str());
    throw;
  }
  syncDirectory(file.parent_path());
}

bool removeFileDurably(const fs::path& file)
{
  if (::unlink(file.c_str()) != 0)
  {
    if (errno == ENOENT)
      return false;
    fail("cannot remove", file);
  }
  syncDirectory(file.parent_path());
  return true;
}

std::size_t removeTemporaryFiles(const fs::path& directory)
{
  std::size_t removed = 0;
  for (const auto& entry : fs::directory_iterator(directory))
  {
    const auto name = entry.path().filename().string();
    if (name.starts_with('.') && name.ends_with(temporarySuffix) && fs::remove(entry.path()))
      ++removed;
  }
  return removed;
}

fs::path nameForDamaged(const fs::path& file)
{
  auto name = file;
  name += ".damaged";
  for (int number = 2; fs::exists(fs::symlink_status(name)); ++number)
    name = file.string() + ".damaged." + std::to_string(number);
  return name;
}

std::string readFile(const fs::path& file, std::uintmax_t limit)
{
  // Without O_NONBLOCK a pipe that bears the name would be waited for for ever.
  return Descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK), file).read(limit);
}

void syncDirectory(const fs::path& directory)
{
  Descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), directory).sync();
}

void syncTree(const fs::path& directory)
{
  for (const auto& entry : fs::recursive_directory_iterator(directory))
    if (entry.is_directory() && !entry.is_symlink())
      syncDirectory(entry.path());
    else if (entry.is_regular_file() && !entry.is_symlink())
      Descriptor(::open(entry.path().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC), entry.path()).sync();
  syncDirectory(directory);
}

} // namespace storage
