#pragma once

#include <string>
#include <vector>

#include "context.hpp"

namespace Tarvik
{

constexpr auto behaviorManagerName = "ZBBehaviorManager";

/// The behavior manager of a host, seen from a client. The session must
/// outlive it.
class Behaviors
{
public:
  explicit Behaviors(vu::RemoteSession& session);

  const vu::Object& object() const { return _object; }

  std::vector<std::string> installed() const { return names("getInstalledBehaviors"); }
  std::vector<std::string> names(const std::string& method) const { return _object.call<std::vector<std::string>>(method); }

  /// The names that state lists and signals use, all asked for at once. Throws
  /// a CommandError that names what is meant, perhaps, when no such behavior is
  /// installed.
  std::vector<std::string> resolve(const std::vector<std::string>& names) const;
  std::string resolve(const std::string& name) const { return resolve(std::vector{name}).front(); }

private:
  vu::Object _object;
};

/// Why `name` is not accepted, with the installed behavior that is probably meant.
std::string unknownBehaviorText(const std::string& name, const std::vector<std::string>& installed);

} // namespace Tarvik
