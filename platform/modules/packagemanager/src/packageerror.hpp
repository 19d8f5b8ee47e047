#pragma once

#include <common/text.hpp>
#include <stdexcept>

namespace ZB
{

/// Something is wrong with a package. The text says where in it and what, for
/// the person who made it; the package itself is named by whoever opened it.
class PackageError : public std::runtime_error
{
public:
  using std::runtime_error::runtime_error;
};

using common::inQuotes;

} // namespace ZB
