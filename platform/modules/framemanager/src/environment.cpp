#include <environment.hpp>

#include <algorithm>
#include <array>
#include <string_view>

#include <unistd.h>

namespace ZB::FrameManager
{

namespace
{

constexpr std::string_view ownPrefix = "TARVIK_";
constexpr std::array<std::string_view, 9> always{"PATH", "HOME", "LANG", "LC_*", "TZ", "TMPDIR", "USER", "LOGNAME", "SHELL"};

bool matches(std::string_view name, std::string_view pattern)
{
  return pattern.ends_with('*') ? name.starts_with(pattern.substr(0, pattern.size() - 1)) : name == pattern;
}

} // namespace

bool namesVariables(const std::string& pattern)
{
  const auto name = std::string_view(pattern).substr(0, pattern.size() - (pattern.ends_with('*') ? 1 : 0));
  const auto allowed = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; };
  return !pattern.empty() && std::all_of(name.begin(), name.end(), allowed) && !name.starts_with(ownPrefix);
}

std::vector<std::string> inheritedEnvironment(const std::vector<std::string>& more)
{
  std::vector<std::string> result;
  for (char** entry = environ; entry && *entry; ++entry)
  {
    const std::string_view text = *entry;
    const auto name = text.substr(0, text.find('='));
    const auto named = [name](const auto& pattern) { return matches(name, pattern); };
    if (!name.starts_with(ownPrefix) && (std::any_of(always.begin(), always.end(), named) || std::any_of(more.begin(), more.end(), named)))
      result.emplace_back(text);
  }
  return result;
}

} // namespace ZB::FrameManager
