#pragma once

#include <optional>
#include <string>
#include <vector>

#include <vu/role.hpp>
#include <vu/valuefwd.hpp>

/// What a service says about itself; converts to and from the value that
/// "session.describe" answers with (docs/protocol.md).
namespace vu
{

struct ParameterDescription
{
  std::string name;
  std::string description;
  std::string type; ///< see typeName()
};

struct MethodDescription
{
  std::string name;
  std::string description;
  std::vector<ParameterDescription> parameters;
  /// None where nothing is returned.
  std::optional<ParameterDescription> returns;
  /// Whether the result is a future; `returns`, where present, then has the
  /// type "future<...>".
  bool future = false;
  /// The first role that may call it, where it declares one; not on the wire.
  std::optional<Role> access = {};
  /// Whether it ends something, and so goes ahead of calls that wait; not on
  /// the wire.
  bool urgent = false;

  Role leastRole() const { return access ? *access : leastRoleByName(name); }
  bool isUrgent() const { return urgent || isUrgentByName(name); }
};

struct SignalDescription
{
  std::string name;
  std::vector<std::string> arguments; ///< types
};

/// Methods and signals stand in the order in which they were advertised.
struct ObjectDescription
{
  std::string name;
  std::string description;
  std::vector<MethodDescription> methods;
  std::vector<SignalDescription> signals;

  /// Null when there is none of that name.
  const MethodDescription* method(const std::string& name) const;
};

void to_json(Value& value, const ObjectDescription& description);
void from_json(const Value& value, ObjectDescription& description);

} // namespace vu
