#pragma once

#include <nlohmann/json_fwd.hpp>

namespace vu
{

/// What travels between services: arguments, results, event values. C++ types
/// convert through their `to_json` and `from_json`.
using Value = nlohmann::json;

} // namespace vu
