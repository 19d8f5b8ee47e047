#include <stdexcept>

#include <expression.hpp>

#include "input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  try
  {
    const auto expression = Tarvik::Expression::parse(Tarvik::percentDecode(asText(data, size)));
    require(!expression.service.empty() && !expression.method.empty() && expression.arguments.is_array());
  }
  catch (const std::invalid_argument& error)
  {
    require(*error.what() != '\0');
  }
  return 0;
}
