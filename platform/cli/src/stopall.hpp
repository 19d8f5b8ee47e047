#pragma once

#include "context.hpp"

namespace Tarvik
{

/// Stops each running behavior, whatever becomes of the others. Throws a
/// CommandError that names what is left, and why.
void stopAll(Context& context);

} // namespace Tarvik
