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

} // namespace vu
