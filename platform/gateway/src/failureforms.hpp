#pragma once

#include <array>
#include <string_view>

#include <network/jsonrpccode.hpp>
#include <vu/error.hpp>

namespace Tarvik
{

/// How a failed call is told: its code in JSON-RPC, its status over HTTP, and
/// the `result` under which the metrics count it (docs/protocol.md and
/// docs/operation.md tell what each means).
struct FailureForm
{
  vu::ServiceError::Kind kind;
  network::JsonRpcCode code;
  unsigned status;
  std::string_view result;
};

/// Whatever is not named among them is a service's own error, the first.
inline constexpr std::array failureForms{
    FailureForm{vu::ServiceError::Kind::Service, network::Failed, 500, "error"},
    FailureForm{vu::ServiceError::Kind::UnknownService, network::MethodNotFound, 404, "unknown"},
    FailureForm{vu::ServiceError::Kind::UnknownMethod, network::MethodNotFound, 404, "unknown"},
    FailureForm{vu::ServiceError::Kind::InvalidArguments, network::InvalidParams, 400, "invalid"},
    FailureForm{vu::ServiceError::Kind::NotAllowed, network::NotAllowed, 403, "refused"},
    FailureForm{vu::ServiceError::Kind::Overloaded, network::Overloaded, 503, "overloaded"},
};

constexpr const FailureForm& formOf(vu::ServiceError::Kind kind)
{
  for (const auto& form : failureForms)
    if (form.kind == kind)
      return form;
  return failureForms.front();
}

} // namespace Tarvik
