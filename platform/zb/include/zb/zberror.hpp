#pragma once

#include <source_location>
#include <string>

#include <vu/error.hpp>

namespace ZB
{

/// The error that modules report to their clients. Its text is the description.
class ZBError : public vu::ServiceError
{
public:
  ZBError(std::string module, std::string method, const std::string& description,
          std::source_location location = std::source_location::current());
  /// The same error as one that came from a service, with its kind.
  explicit ZBError(const vu::ServiceError& error, std::source_location location = std::source_location::current());
  ~ZBError() override;

  /// Where it was made.
  const std::source_location& location() const noexcept { return _location; }

private:
  std::source_location _location;
};

} // namespace ZB
