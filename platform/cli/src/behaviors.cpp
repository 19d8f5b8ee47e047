#include "behaviors.hpp"

#include <algorithm>
#include <utility>

namespace Tarvik
{

Behaviors::Behaviors(vu::RemoteSession& session) : _object(session.service(behaviorManagerName).value()) {}

std::vector<std::string> Behaviors::resolve(const std::vector<std::string>& names) const
{
  std::vector<std::pair<std::string, vu::Future<std::string>>> asked;
  asked.reserve(names.size());
  for (const auto& name : names)
    asked.emplace_back(name, _object.async<std::string>("resolveBehaviorName", name));
  std::vector<std::string> resolved;
  for (const auto& [name, answer] : asked)
    try
    {
      resolved.push_back(answer.value());
      if (resolved.back().empty())
        throw CommandError(unknownBehaviorText(name, installed()));
    }
    catch (const vu::ServiceError& error)
    {
      if (error.kind() != vu::ServiceError::Kind::Service)
        throw;
      throw CommandError(error.description() + "; \"tarvik list\" shows the installed behaviors");
    }
  return resolved;
}

std::string unknownBehaviorText(const std::string& name, const std::vector<std::string>& installed)
{
  const auto probable =
      std::find_if(installed.begin(), installed.end(), [&name](const auto& each) { return each.starts_with(name + "/"); });
  const auto hint = probable == installed.end() ? std::string() : " (perhaps \"" + *probable + "\" is meant)";
  return "no behavior \"" + name + "\" is installed" + hint + "; \"tarvik list\" shows those that are";
}

} // namespace Tarvik
