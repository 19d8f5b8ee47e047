#include <stdexcept>

#include <packages/projectreader.hpp>

#include "input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  try
  {
    packages::parseProject(asText(data, size), "/package/behavior.xar", "behavior.xar");
  }
  catch (const std::runtime_error& error)
  {
    require(std::string(error.what()).starts_with("/package/behavior.xar:"));
  }
  return 0;
}
