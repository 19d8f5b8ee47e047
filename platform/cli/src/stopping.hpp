#pragma once

#include <string>

#include "context.hpp"

namespace Tarvik
{

/// Stops one behavior. Throws a CommandError that says why where something of
/// it lives on.
void stopOne(Context& context, const std::string& name);

/// Stops each running behavior, whatever becomes of the others. Throws a
/// CommandError that names what is left, and why.
void stopAll(Context& context);

} // namespace Tarvik
