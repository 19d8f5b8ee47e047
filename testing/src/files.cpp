#include <testing/files.hpp>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <stdlib.h>

namespace TestSupport
{

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory()
{
  auto name = (fs::temp_directory_path() / "tarvik-test-XXXXXX").string();
  if (!::mkdtemp(name.data()))
    throw std::runtime_error("no directory for the test: " + name);
  _path = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
  std::error_code ignored;
  fs::remove_all(_path, ignored);
}

std::string readFile(const fs::path& file)
{
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

fs::path writeFile(const fs::path& file, const std::string& content)
{
  fs::create_directories(file.parent_path());
  std::ofstream stream(file, std::ios::binary);
  stream << content;
  if (!stream.flush())
    throw std::runtime_error("cannot write " + file.string());
  return file;
}

std::vector<std::string> namesIn(const fs::path& directory)
{
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string project(const std::string& steps) { return "<project format=\"1\" name=\"test\">\n" + steps + "\n</project>\n"; }

fs::path writePackage(const fs::path& directory, const std::string& uuid, const std::map<std::string, std::string>& stepsByPath,
                      const std::string& version)
{
  std::string behaviors;
  for (const auto& [path, steps] : stepsByPath)
  {
    behaviors += "  <behavior path=\"" + path + "\"/>\n";
    writeFile(directory / path / "behavior.xar", project(steps));
  }
  writeFile(directory / "manifest.xml", "<package uuid=\"" + uuid + "\" version=\"" + version + "\">\n" + behaviors + "</package>\n");
  return directory;
}

} // namespace TestSupport
