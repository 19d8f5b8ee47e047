#pragma once

#include <string>

#include <vu/error.hpp>
#include <vu/text.hpp>

namespace ZB
{

/// Something is wrong with a package. The text says where in it and what, for
/// the person who made it; the package itself is named by whoever opened it.
class PackageError : public vu::ServiceError
{
public:
  explicit PackageError(const std::string& text) : ServiceError("PackageManager", "", text) {}
};

using vu::inQuotes;

} // namespace ZB
