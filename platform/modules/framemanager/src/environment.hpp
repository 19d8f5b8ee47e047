#pragma once

#include <string>
#include <vector>

namespace ZB::FrameManager
{

/// Whether a text names variables of the environment: NAME, or NAME* for all
/// that begin so. What begins with TARVIK_ is the host's to set, and named by none.
bool namesVariables(const std::string& pattern);

/// This process's variables that programs get, as "NAME=value": those that a
/// program needs to find its way about, and those that `more` names. Of
/// another host nothing is handed on.
std::vector<std::string> inheritedEnvironment(const std::vector<std::string>& more);

} // namespace ZB::FrameManager
