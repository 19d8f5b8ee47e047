#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace vu
{

/// What somebody may do. Each role may do what the one before it may.
enum class Role
{
  Observer, ///< looks: queries, signals and events
  Operator, ///< runs behaviors
  Admin     ///< changes what is installed and stored, and calls internal methods
};

inline constexpr std::array roles{Role::Observer, Role::Operator, Role::Admin};

std::string_view roleName(Role role);
/// None for a text that is no role's name.
std::optional<Role> roleFromName(std::string_view name);

/// The first role that may call a method which does not declare one: a query
/// (get…, is…, has…, resolve…, packages, package, behaviors) is an observer's,
/// a name that begins with an underscore an admin's, all else an operator's.
Role leastRoleByName(std::string_view method);

/// Whether a method that does not say so itself ends something, and so goes
/// ahead of calls that wait: stop…
bool isUrgentByName(std::string_view method);

} // namespace vu
