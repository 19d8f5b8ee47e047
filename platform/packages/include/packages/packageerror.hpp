#pragma once

#include <string>

#include <vu/error.hpp>

namespace packages
{

/// Something is wrong with a package. The text says where in it and what, for
/// the person who made it; the package itself is named by whoever opened it.
class PackageError : public vu::ServiceError
{
public:
  explicit PackageError(const std::string& text) : ServiceError("packages", "", text) {}
};

} // namespace packages
