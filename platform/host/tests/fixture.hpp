#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include <stdlib.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace HostTest
{

/// A root in a directory of its own, which goes with the test.
class RootFixture : public testing::Test
{
protected:
  RootFixture()
  {
    std::string name = testing::TempDir() + "tarvik-root-XXXXXX";
    if (!::mkdtemp(name.data()))
      throw std::runtime_error("no directory for the test");
    root = name;
  }
  ~RootFixture() override { std::filesystem::remove_all(root); }

  std::string read(const std::string& name) const
  {
    std::ifstream stream(root / name);
    std::string line;
    std::getline(stream, line);
    return line;
  }

  bool exists(const std::string& name) const { return std::filesystem::exists(root / name); }

  unsigned mode(const std::string& name) const
  {
    struct stat status
    {
    };
    return ::stat((root / name).c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
  }

  std::filesystem::path root;
};

} // namespace HostTest
