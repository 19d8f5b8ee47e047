#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "httpanswer.hpp"

namespace Tarvik
{

/// A file of the live page, as it was when the gateway was built.
struct Asset
{
  std::string_view name; ///< "page.css"
  std::string_view content;
};

/// All files of the folder page/.
std::span<const Asset> assets();

/// What is served at the path: the live page at "/", and the files that it
/// needs at "/assets/NAME".
std::optional<HttpAnswer> findAsset(std::string_view path);

} // namespace Tarvik
