#include "behaviors.hpp"

#include <algorithm>

namespace Tarvik
{

Behaviors::Behaviors(vu::RemoteSession& session) : _object(session.service(behaviorManagerName).value()) {}

std::string Behaviors::resolve(const std::string& name) const
{
  try
  {
    const auto resolved = _object.call<std::string>("resolveBehaviorName", name);
    if (!resolved.empty())
      return resolved;
  }
  catch (const vu::ServiceError& error)
  {
    if (error.kind() != vu::ServiceError::Kind::Service)
      throw;
    throw CommandError(error.description() + "; \"tarvik list\" shows the installed behaviors");
  }
  throw CommandError(unknownBehaviorText(name, installed()));
}

std::string unknownBehaviorText(const std::string& name, const std::vector<std::string>& installed)
{
  const auto probable =
      std::find_if(installed.begin(), installed.end(), [&name](const auto& each) { return each.starts_with(name + "/"); });
  const auto hint = probable == installed.end() ? std::string() : " (perhaps \"" + *probable + "\" is meant)";
  return "no behavior \"" + name + "\" is installed" + hint + "; \"tarvik list\" shows those that are";
}

} // namespace Tarvik
