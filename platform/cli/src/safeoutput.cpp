#include "safeoutput.hpp"

#include <string_view>

#include <vu/text.hpp>

namespace Tarvik
{

namespace
{

/// Whether more bytes may make a character of it.
bool mayBeCutOff(std::string_view text)
{
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t whole = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 1;
  if (text.size() >= whole)
    return false;
  for (const char byte : text.substr(1))
    if ((static_cast<unsigned char>(byte) & 0xC0) != 0x80)
      return false;
  return true;
}

} // namespace

SafeOutput::Buffer::int_type SafeOutput::Buffer::overflow(int_type character)
{
  if (traits_type::eq_int_type(character, traits_type::eof()))
    return traits_type::not_eof(character);
  _pending += traits_type::to_char_type(character);
  return write(false) ? character : traits_type::eof();
}

std::streamsize SafeOutput::Buffer::xsputn(const char* text, std::streamsize length)
{
  _pending.append(text, static_cast<std::size_t>(length));
  return write(false) ? length : 0;
}

int SafeOutput::Buffer::sync() { return write(true) && _target.flush() ? 0 : -1; }

bool SafeOutput::Buffer::write(bool isEnd)
{
  std::string safe;
  std::string_view rest = _pending;
  while (!rest.empty() && (isEnd || !mayBeCutOff(rest)))
  {
    const auto [code, bytes] = vu::firstCharacter(rest);
    if (code == '\n' || code == '\t')
      safe += rest.front();
    else if (vu::steersOutput(code))
      safe += vu::escapedCharacter(code);
    else
      safe += vu::visible(rest.substr(0, bytes));
    rest.remove_prefix(bytes);
  }
  _pending.erase(0, _pending.size() - rest.size());
  return static_cast<bool>(_target.write(safe.data(), static_cast<std::streamsize>(safe.size())));
}

} // namespace Tarvik
