#pragma once

#include <string>

#include <zb/zberror.hpp>

/// What the units of the module share and nobody else sees.
namespace ZB::BehaviorManager
{

inline constexpr const char* logCategory = "behaviormanager";

/// An error of the module, in the name of one of its methods.
inline ZBError makeError(const char* method, const std::string& description,
                         std::source_location location = std::source_location::current())
{
  return ZBError("ZBBehaviorManager", method, description, location);
}

} // namespace ZB::BehaviorManager
