#pragma once

#include <array>
#include <string_view>

#include <vu/error.hpp>

namespace Tarvik
{

/// How a failed call is told: its code in JSON-RPC, its status over HTTP, and
/// the `result` under which the metrics count it (docs/protocol.md and
/// docs/operation.md tell what each means).
struct FailureForm
{
  vu::ServiceError::Kind kind;
  int code;
  unsigned status;
  std::string_view result;
};

/// Whatever is not named among them is a service's own error, the first.
inline constexpr std::array failureForms{
    FailureForm{vu::ServiceError::Kind::Service, -32000, 500, "error"},
    FailureForm{vu::ServiceError::Kind::UnknownService, -32601, 404, "unknown"},
    FailureForm{vu::ServiceError::Kind::UnknownMethod, -32601, 404, "unknown"},
    FailureForm{vu::ServiceError::Kind::InvalidArguments, -32602, 400, "invalid"},
    FailureForm{vu::ServiceError::Kind::NotAllowed, -32001, 403, "refused"},
    FailureForm{vu::ServiceError::Kind::Overloaded, -32002, 503, "overloaded"},
};

constexpr const FailureForm& formOf(vu::ServiceError::Kind kind)
{
  for (const auto& form : failureForms)
    if (form.kind == kind)
      return form;
  return failureForms.front();
}

} // namespace Tarvik
