#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Foreign bytes made fit for messages, logs and terminals.
namespace vu
{

/// In quotation marks, with what cannot be printed escaped or replaced.
std::string inQuotes(std::string_view text);

/// The same text with what is not UTF-8 replaced.
std::string validUtf8(std::string_view text);

/// Whether a character steers a terminal or turns the reading direction: C0,
/// DEL, C1, line and paragraph separators, bidirectional embeddings, overrides
/// and isolates.
bool steersOutput(char32_t character);

/// The first character of a text, and how many bytes it takes; U+FFFD for one
/// byte that begins none. `text` is not empty.
struct Character
{
  char32_t code;
  std::size_t bytes;
};
Character firstCharacter(std::string_view text);

/// "\u001b", as JSON has it.
std::string escapedCharacter(char32_t character);

/// One line that steers nothing: such characters are written out, "\u001b",
/// and a newline as "\n"; a tab stays. What is not UTF-8 is replaced.
std::string visible(std::string_view text);

/// The same, cut to about `most` bytes.
std::string shortened(std::string_view text, std::size_t most = 100);

} // namespace vu
