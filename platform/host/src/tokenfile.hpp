#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gateway/access.hpp>

namespace Tarvik
{

/// Who has a token.
struct TokenRecord
{
  using Time = Access::Clock::time_point;

  std::string name;
  Role role = Role::Observer;
  Time created;
  std::optional<Time> end;
  std::optional<Time> lastUse; ///< as far as it has been written down
  TokenDigest digest{};
  std::uint64_t number = 0; ///< in Access
};

/// The file of a root that keeps them, and of the tokens themselves no more
/// than their digests.
namespace TokenFile
{

/// Of letters, digits, '.', '_' and '-'; shorter than a token, so that one
/// taken for its name is refused unread.
bool isName(const std::string& text);
/// Names that the log, the history and the records of packages give a meaning
/// of their own, in whatever case.
bool isReserved(const std::string& name);

/// None where there is no file. Throws when it cannot be read whole.
std::vector<TokenRecord> read(const std::filesystem::path& file);
/// Throws std::filesystem::filesystem_error.
void write(const std::filesystem::path& file, const std::vector<TokenRecord>& records);

/// UTC, "2026-03-04T10:20:30Z"; null for none.
vu::Value timeValue(const std::optional<TokenRecord::Time>& time);

} // namespace TokenFile

} // namespace Tarvik
