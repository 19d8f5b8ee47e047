#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace TestSupport
{

/// A directory of the test's own, gone with all that is in it when the test ends.
class TemporaryDirectory
{
public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return _path; }
  operator const std::filesystem::path&() const { return _path; }
  std::filesystem::path operator/(const std::filesystem::path& name) const { return _path / name; }
  std::string string() const { return _path.string(); }

private:
  std::filesystem::path _path;
};

/// Whole; empty where there is no such file.
std::string readFile(const std::filesystem::path& file);
/// With the directories that it needs; gives the file.
std::filesystem::path writeFile(const std::filesystem::path& file, const std::string& content);
/// Names of all that stands in a directory, hidden or not, sorted.
std::vector<std::string> namesIn(const std::filesystem::path& directory);

/// A project of these steps, written as in its file.
std::string project(const std::string& steps);
/// A package's directory: its manifest, and a project of the given steps for
/// each behavior path. Gives the directory.
std::filesystem::path writePackage(const std::filesystem::path& directory, const std::string& uuid,
                                   const std::map<std::string, std::string>& stepsByPath, const std::string& version = "1");

} // namespace TestSupport
