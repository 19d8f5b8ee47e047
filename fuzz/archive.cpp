#include <archive.hpp>
#include <packages/packageerror.hpp>
#include <packages/packagetree.hpp>

#include "input.hpp"

namespace fs = std::filesystem;

/// What an archive unpacks to stays in its folder, within the limits.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  static const ScratchFolder scratch;
  constexpr ZB::UnpackLimits limits{1 << 20, 64};
  const auto archive = scratch.path() / "input.zip";
  const auto target = scratch.path() / "target";
  writeInput(archive, data, size);
  fs::create_directory(target);
  try
  {
    ZB::unpackArchive(archive, target, limits);
    packages::checkTree(target);
  }
  catch (const packages::PackageError&)
  {
  }
  catch (const fs::filesystem_error&)
  {
  }
  std::uintmax_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(target))
    if (entry.symlink_status().type() == fs::file_type::regular)
      bytes += entry.file_size();
  require(bytes <= limits.bytes);
  fs::remove_all(target);
  for (const auto& entry : fs::directory_iterator(scratch.path()))
    require(entry.path() == archive);
  return 0;
}
