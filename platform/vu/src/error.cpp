#include <vu/error.hpp>

#include <utility>

namespace vu
{

ServiceError::ServiceError(std::string module, std::string method, const std::string& description, Kind kind)
    : std::runtime_error(description), _module(std::move(module)), _method(std::move(method)), _kind(kind)
{
}

ServiceError::~ServiceError() = default;

ServiceError unknownService(const std::string& service, const std::string& method, const std::string& detail)
{
  return {service, method, "there is no service " + service + detail, ServiceError::Kind::UnknownService};
}

std::string errorText(const std::exception_ptr& error)
{
  if (!error)
    return {};
  try
  {
    std::rethrow_exception(error);
  }
  catch (const std::exception& exception)
  {
    return exception.what();
  }
  catch (...)
  {
    return "an error of an unknown type";
  }
}

} // namespace vu
