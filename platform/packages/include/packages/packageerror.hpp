#pragma once

#include <cstddef>
#include <string>
#include <utility>

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

/// What is wrong with a package's file, and where.
struct Fault
{
  std::string file;     ///< relative to the package
  std::size_t line = 1; ///< the first is 1
  std::string text;
};

/// The fault that ended the reading of a file.
class FaultyFile : public PackageError
{
public:
  FaultyFile(const std::string& text, Fault fault) : PackageError(text), _fault(std::move(fault)) {}

  const Fault& fault() const { return _fault; }

private:
  Fault _fault;
};

} // namespace packages
