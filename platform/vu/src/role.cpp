#include <vu/role.hpp>

#include <algorithm>

namespace vu
{

namespace
{

/// "issue" does not begin with the word "is".
bool beginsWithWord(std::string_view method, std::string_view word)
{
  return method.starts_with(word) && method.size() > word.size() && (method[word.size()] < 'a' || method[word.size()] > 'z');
}

bool isQuery(std::string_view method)
{
  for (const std::string_view word : {"get", "is", "has", "resolve"})
    if (beginsWithWord(method, word))
      return true;
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

bool isUrgentByName(std::string_view method) { return beginsWithWord(method, "stop"); }

} // namespace vu
