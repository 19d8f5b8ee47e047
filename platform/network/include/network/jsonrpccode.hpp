#pragma once

namespace network
{

/// What a JSON-RPC error is: those below -32100 as JSON-RPC 2.0 (5.1, "Error
/// object") has them, the others this platform's own (docs/protocol.md).
enum JsonRpcCode
{
  ParseError = -32700,
  InvalidRequest = -32600,
  MethodNotFound = -32601, ///< or service
  InvalidParams = -32602,
  Failed = -32000, ///< the service's own error
  NotAllowed = -32001,
  Overloaded = -32002
};

} // namespace network
