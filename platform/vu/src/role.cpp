#include <vu/role.hpp>

#include <algorithm>

namespace vu
{

namespace
{

bool isQuery(std::string_view method)
{
  for (const std::string_view prefix : {"get", "is", "has", "resolve"})
    if (method.starts_with(prefix) && method.size() > prefix.size())
    {
      // "issue" is no "is…".
      const char next = method[prefix.size()];
      if (next < 'a' || next > 'z')
        return true;
    }
  constexpr std::array<std::string_view, 3> queries{"packages", "package", "behaviors"};
  return std::find(queries.begin(), queries.end(), method) != queries.end();
}

} // namespace

std::string_view roleName(Role role)
{
  switch (role)
  {
  case Role::Observer:
    return "observer";
  case Role::Operator:
    return "operator";
  case Role::Admin:
    break;
  }
  return "admin";
}

std::optional<Role> roleFromName(std::string_view name)
{
  const auto* const found = std::find_if(roles.begin(), roles.end(), [name](Role role) { return roleName(role) == name; });
  return found == roles.end() ? std::nullopt : std::optional(*found);
}

Role leastRoleByName(std::string_view method)
{
  if (isQuery(method))
    return Role::Observer;
  return method.starts_with('_') ? Role::Admin : Role::Operator;
}

} // namespace vu
