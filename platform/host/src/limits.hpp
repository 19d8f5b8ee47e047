#pragma once

#include <host/host.hpp>

namespace Tarvik
{

/// Sets the limits that an object of settings names ("limits" of the
/// configuration file). Throws std::invalid_argument that names the one that
/// does not exist or has no good value.
void readLimits(const vu::Value& settings, Host::Options& options);

} // namespace Tarvik
