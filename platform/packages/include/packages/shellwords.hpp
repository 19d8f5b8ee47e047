#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace packages
{

/// Splits as a shell splits words, and does nothing else that a shell does:
/// blanks part words; a backslash takes the next character as it is; nothing
/// is special within '…'; within "…" a backslash quotes only " \ $ and `.
/// Throws std::invalid_argument for a quote that is not closed or a backslash
/// at the end.
std::vector<std::string> shellWords(std::string_view text);

} // namespace packages
