#include <projectfile.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filedescriptor.hpp>

namespace ZB::FrameManager
{

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

fs::path existing(const fs::path& path, const char* what)
{
  std::error_code error;
  auto result = fs::canonical(path, error);
  if (error)
    refuse(std::string(what) + " " + path.string() + ": " + error.message());
  return result;
}

bool isInside(const fs::path& path, const fs::path& directory)
{
  return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first == directory.end();
}

std::string readWhole(const fs::path& path)
{
  // Not blocking: a pipe of that name would be waited for.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0)
    refuse("the project file " + path.string() + " cannot be read: " + std::generic_category().message(errno));
  if (!S_ISREG(status.st_mode))
    refuse("the project file " + path.string() + " is not a regular file");
  std::string text;
  for (std::array<char, 16384> part;;)
  {
    const auto count = ::read(file.get(), part.data(), part.size());
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      refuse("the project file " + path.string() + " cannot be read: " + std::generic_category().message(errno));
    if (count == 0)
      break;
    text.append(part.data(), static_cast<std::size_t>(count));
    if (text.size() > projectFileLimit)
      refuse("the project file " + path.string() + " is longer than " + std::to_string(projectFileLimit) + " bytes");
  }
  return text;
}

} // namespace

ProjectFile loadProjectFile(const std::string& packageDirectory, const std::string& projectFile)
{
  if (packageDirectory.empty() || !fs::path(packageDirectory).is_absolute())
    refuse("the package directory must be an absolute path, not \"" + packageDirectory + "\"");
  if (projectFile.empty() || fs::path(projectFile).is_absolute())
    refuse("the project file must be a path relative to " + packageDirectory + ", not \"" + projectFile + "\"");
  const auto directory = existing(packageDirectory, "the package directory");
  const auto lexical = (directory / projectFile).lexically_normal();
  if (!isInside(lexical, directory))
    refuse("the project file \"" + projectFile + "\" lies outside the package directory " + packageDirectory);
  auto path = existing(directory / projectFile, "the project file");
  if (!isInside(path, directory))
    refuse("the project file \"" + projectFile + "\" is a link that leads out of the package directory " + packageDirectory);
  auto text = readWhole(path);
  return {std::move(path), std::move(text)};
}

} // namespace ZB::FrameManager
