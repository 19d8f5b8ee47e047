#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace packages
{

struct BadCharacter
{
  std::size_t offset;
  std::string text; ///< what is wrong there
};

/// The first place of an XML text that is not UTF-8 or holds a control
/// character, as it is or as a reference (`&#0;`): the parser takes it for the
/// end of a text, and nobody would see what stands behind it.
std::optional<BadCharacter> findBadCharacter(const std::string& text);

} // namespace packages
