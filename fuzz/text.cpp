#include <vu/text.hpp>
#include <vu/value.hpp>

#include "input.hpp"

/// Whatever comes in, what is shown is UTF-8 of one line that steers nothing,
/// and stays as it is when it is shown again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  const auto text = asText(data, size);
  const auto shown = vu::visible(text);
  require(vu::validUtf8(shown) == shown);
  require(vu::visible(shown) == shown);
  std::string_view rest = shown;
  while (!rest.empty())
  {
    const auto [code, bytes] = vu::firstCharacter(rest);
    require(bytes >= 1 && bytes <= rest.size());
    require(code == '\t' || !vu::steersOutput(code));
    rest.remove_prefix(bytes);
  }
  require(vu::shortened(text, 10).size() <= 10 * 6 + 3);
  return 0;
}
