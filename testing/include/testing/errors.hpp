#pragma once

#include <functional>
#include <string>

#include <vu/error.hpp>

namespace TestSupport
{

/// What `action` throws must be a ServiceError, which is given whole; without
/// one the test has failed, and the error given is empty.
vu::ServiceError serviceErrorOf(const std::function<void()>& action);

/// The text of whatever std::exception `action` throws, for a ServiceError its
/// description; "no error" where nothing is thrown.
std::string errorOf(const std::function<void()>& action);

} // namespace TestSupport
