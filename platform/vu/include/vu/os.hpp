#pragma once

#include <string>

namespace vu::os
{

/// The current user's home directory: $HOME, else the password database's,
/// else "/".
std::string home();

} // namespace vu::os
