#include <gateway/access.hpp>

#include <algorithm>
#include <array>
#include <stdexcept>

#include <openssl/crypto.h>

namespace Tarvik
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

bool isGuarded(std::string_view service)
{
  constexpr std::array<std::string_view, 4> services{"PackageManager", "ZBPreferences", "ZBMemory", "ZBFrameManager"};
  return std::find(services.begin(), services.end(), service) != services.end();
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

bool mayCall(Role role, std::string_view service, std::string_view method)
{
  if (role == Role::Admin || isQuery(method))
    return true;
  if (role == Role::Observer || method.starts_with('_'))
    return false;
  return !isGuarded(service) || (service == "ZBPreferences" && method == "readPrefFile");
}

void Access::add(std::string token, Identity identity)
{
  if (token.empty())
    throw std::invalid_argument("an empty token for " + identity.name);
  _entries.push_back({std::move(token), std::move(identity)});
}

std::optional<Identity> Access::identify(std::string_view token) const
{
  std::optional<Identity> found;
  for (const auto& entry : _entries)
    if (entry.token.size() == token.size() && CRYPTO_memcmp(entry.token.data(), token.data(), token.size()) == 0)
      found = entry.identity;
  return found;
}

} // namespace Tarvik
