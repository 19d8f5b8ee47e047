#include "assets.hpp"

#include <algorithm>

namespace Tarvik
{

namespace
{

std::string contentType(std::string_view name)
{
  if (name.ends_with(".html"))
    return "text/html; charset=utf-8";
  if (name.ends_with(".css"))
    return "text/css; charset=utf-8";
  return name.ends_with(".svg") ? "image/svg+xml" : "text/javascript; charset=utf-8";
}

} // namespace

std::optional<HttpAnswer> findAsset(std::string_view path)
{
  constexpr std::string_view folder = "/assets/";
  if (path != "/" && !path.starts_with(folder))
    return std::nullopt;
  const auto name = path == "/" ? std::string_view("index.html") : path.substr(folder.size());
  const auto all = assets();
  const auto found = std::find_if(all.begin(), all.end(), [name](const Asset& asset) { return asset.name == name; });
  if (found == all.end())
    return std::nullopt;
  return HttpAnswer{200, contentType(name), std::string(found->content)};
}

} // namespace Tarvik
