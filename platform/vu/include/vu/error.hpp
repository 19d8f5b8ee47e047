#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace vu
{

/// Root of every error that a service reports: which module, which of its
/// methods, and what happened. It crosses the wire whole.
class ServiceError : public std::runtime_error
{
public:
  /// Why a call failed. The JSON-RPC code of each stands in docs/protocol.md.
  enum class Kind
  {
    Service,          ///< the service itself reported it
    UnknownService,   ///< no service of that name, or it has gone
    UnknownMethod,    ///< the service has no such method or signal
    InvalidArguments, ///< wrong number or type of arguments
    NotAllowed,       ///< the caller's role does not allow it
    Overloaded,       ///< no thread left to carry the call out
    ConnectionLost    ///< the connection ended before the answer came
  };

  ServiceError(std::string module, std::string method, const std::string& description, Kind kind = Kind::Service);
  ~ServiceError() override;

  const std::string& module() const noexcept { return _module; }
  const std::string& method() const noexcept { return _method; }
  /// The same text as what().
  std::string description() const { return what(); }
  Kind kind() const noexcept { return _kind; }

private:
  std::string _module;
  std::string _method;
  Kind _kind;
};

/// What whoever looks in vain for a service is told; `detail` is added to it.
ServiceError unknownService(const std::string& service, const std::string& method = {}, const std::string& detail = {});

/// The text of an exception: what() of a std::exception, else a fixed text.
std::string errorText(const std::exception_ptr& error);

} // namespace vu
