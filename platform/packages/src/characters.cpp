#include "characters.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

#include <boost/locale/utf.hpp>

namespace packages
{

namespace
{

namespace utf = boost::locale::utf;

bool isControl(std::uint32_t code)
{
  return (code < 0x20 && code != '\t' && code != '\n' && code != '\r') || (code >= 0x7f && code < 0xa0);
}

/// The reference that begins at `text`, and the character that it stands for;
/// a number too great for one is as good as none.
struct Reference
{
  std::string_view text;
  std::uint32_t code = 0;
};

std::optional<Reference> referenceAt(std::string_view text)
{
  if (!text.starts_with("&#"))
    return std::nullopt;
  const bool hexadecimal = text.substr(2).starts_with('x');
  const char* const begin = text.data() + (hexadecimal ? 3 : 2);
  Reference reference;
  const auto [end, error] = std::from_chars(begin, text.data() + text.size(), reference.code, hexadecimal ? 16 : 10);
  if (end == begin || end == text.data() + text.size() || *end != ';')
    return std::nullopt;
  if (error != std::errc())
    reference.code = std::numeric_limits<std::uint32_t>::max();
  reference.text = text.substr(0, static_cast<std::size_t>(end - text.data()) + 1);
  return reference;
}

} // namespace

std::optional<BadCharacter> findBadCharacter(const std::string& text)
{
  for (auto position = text.begin(); position != text.end();)
  {
    if (*position >= ' ' && *position < 0x7f && *position != '&') // most of a text
    {
      ++position;
      continue;
    }
    const auto offset = static_cast<std::size_t>(position - text.begin());
    const auto code = utf::utf_traits<char>::decode(position, text.end());
    if (code == utf::illegal || code == utf::incomplete)
      return BadCharacter{offset, "the file is not UTF-8"};
    if (code == 0)
      return BadCharacter{offset, "the file holds a zero byte"};
    if (isControl(code))
      return BadCharacter{offset, "the file holds the control character " + std::to_string(code)};
    if (code != '&')
      continue;
    const auto reference = referenceAt(std::string_view(text).substr(offset));
    if (reference && (isControl(reference->code) || !utf::is_valid_codepoint(reference->code)))
      return BadCharacter{offset,
                          "the reference " + std::string(reference->text.substr(0, 16)) + " stands for no character that a text may hold"};
  }
  return std::nullopt;
}

} // namespace packages
