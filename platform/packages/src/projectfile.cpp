#include <packages/projectfile.hpp>

#include <algorithm>
#include <system_error>

#include <packages/packageerror.hpp>
#include <storage/durablefile.hpp>

namespace packages
{

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void refuse(const std::string& text) { throw PackageError(text); }

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
  try
  {
    if (!fs::is_regular_file(path))
      refuse("the project file " + path.string() + " is not a regular file");
    return storage::readFile(path, projectFileLimit);
  }
  catch (const fs::filesystem_error& error)
  {
    if (error.code() == std::errc::file_too_large)
      refuse("the project file " + path.string() + " is longer than " + std::to_string(projectFileLimit) + " bytes");
    refuse("the project file " + path.string() + " cannot be read: " + error.code().message());
  }
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

} // namespace packages
