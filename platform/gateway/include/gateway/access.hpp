#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tarvik
{

/// What a token allows. Each role may do what the one before it may.
enum class Role
{
  Observer, ///< looks: queries, signals and events
  Operator, ///< runs behaviors
  Admin     ///< changes what is installed and stored, and calls internal methods
};

std::string_view roleName(Role role);

/// Whether a role may call a method. Of the services whose direct use starts
/// programs or changes what others rely on (packages, preferences, memory,
/// frame manager), an operator may use the queries only.
bool mayCall(Role role, std::string_view service, std::string_view method);

/// Who stands behind a token.
struct Identity
{
  std::string name;
  Role role = Role::Observer;
};

/// The tokens that a gateway knows. Filled before the gateway starts.
class Access
{
public:
  /// Throws std::invalid_argument for an empty token.
  void add(std::string token, Identity identity);

  /// Takes the same time wherever the token differs from a known one.
  std::optional<Identity> identify(std::string_view token) const;

private:
  struct Entry
  {
    std::string token;
    Identity identity;
  };
  std::vector<Entry> _entries;
};

} // namespace Tarvik
