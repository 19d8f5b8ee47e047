#include <zb/zberror.hpp>

#include <utility>

namespace ZB
{

ZBError::ZBError(std::string module, std::string method, const std::string& description, std::source_location location)
    : vu::ServiceError(std::move(module), std::move(method), description), _location(location)
{
}

ZBError::ZBError(const vu::ServiceError& error, std::source_location location) : vu::ServiceError(error), _location(location) {}

ZBError::~ZBError() = default;

} // namespace ZB
