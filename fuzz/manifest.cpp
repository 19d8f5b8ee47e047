#include <algorithm>

#include <packages/manifest.hpp>
#include <packages/packageerror.hpp>
#include <vu/value.hpp>

#include "input.hpp"

namespace
{

struct Package : ScratchFolder
{
  Package()
  {
    for (const auto* directory : {"", "hello", "a", "a/b"})
    {
      std::filesystem::create_directories(path() / directory);
      std::ofstream(path() / directory / packages::projectFile) << "<project/>";
    }
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  static const Package package;
  writeInput(package.path() / packages::manifestFile, data, size);
  try
  {
    const vu::PackageInfo info(packages::readManifest(package.path()));
    // Names that a page may show as they are.
    for (const auto& behavior : info.behaviors())
      require((info.uuid() + behavior.path()).find_first_of("<>&\"'\\\n\r") == std::string::npos);
    const packages::Rights rights(info.may());
    require(rights.asked().size() == info.may().size());
    for (const auto& call : rights.asked())
      require(call == "*" || std::count(call.begin(), call.end(), '.') == 1);
    require(!vu::Value(info).dump().empty());
  }
  catch (const packages::PackageError& error)
  {
    require(*error.what() != '\0');
  }
  return 0;
}
