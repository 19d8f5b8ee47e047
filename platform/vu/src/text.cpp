#include <vu/text.hpp>

#include <algorithm>
#include <array>
#include <utility>

#include <vu/value.hpp>

namespace vu
{

namespace
{
constexpr char32_t replacement = 0xFFFD;
}

std::string inQuotes(std::string_view text) { return Value(std::string(text)).dump(-1, ' ', false, Value::error_handler_t::replace); }

std::string validUtf8(std::string_view text) { return Value::parse(inQuotes(text)).get<std::string>(); }

bool steersOutput(char32_t character)
{
  constexpr std::array<std::pair<char32_t, char32_t>, 4> ranges{{{0x00, 0x1F}, {0x7F, 0x9F}, {0x2028, 0x202E}, {0x2066, 0x2069}}};
  return std::any_of(ranges.begin(), ranges.end(),
                     [character](const auto& range) { return character >= range.first && character <= range.second; });
}

Character firstCharacter(std::string_view text)
{
  const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const auto first = byte(0);
  if (first < 0x80)
    return {first, 1};
  const std::size_t bytes = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < bytes)
    return {replacement, 1};
  char32_t code = first & (0xFFu >> (bytes + 1));
  for (std::size_t i = 1; i < bytes; ++i)
  {
    if ((byte(i) & 0xC0) != 0x80)
      return {replacement, 1};
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr std::array<char32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < least[bytes] || code > 0x10FFFF || isSurrogate)
    return {replacement, 1};
  return {code, bytes};
}

std::string escapedCharacter(char32_t character)
{
  std::string text = "\\u";
  for (int shift = 12; shift >= 0; shift -= 4)
    text += "0123456789abcdef"[character >> shift & 15];
  return text;
}

std::string visible(std::string_view text)
{
  std::string result;
  while (!text.empty())
  {
    const auto [code, bytes] = firstCharacter(text);
    if (code == '\n')
      result += "\\n";
    else if (code != '\t' && steersOutput(code))
      result += escapedCharacter(code);
    else if (code == replacement)
      result += "\xef\xbf\xbd";
    else
      result += text.substr(0, bytes);
    text.remove_prefix(bytes);
  }
  return result;
}

std::string shortened(std::string_view text, std::size_t most)
{
  if (text.size() <= most)
    return visible(text);
  while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80)
    --most;
  return visible(text.substr(0, most)) + "...";
}

} // namespace vu
