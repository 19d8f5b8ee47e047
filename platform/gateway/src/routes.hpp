#pragma once

#include <functional>
#include <string>
#include <variant>

#include <boost/beast/http/message.hpp>

#include <zb/zbbroker.hpp>

#include "client.hpp"
#include "httpanswer.hpp"

namespace Tarvik
{

/// An answer that has to be worked out; it may block and runs on the broker's
/// pool.
struct Work
{
  std::function<HttpAnswer(ZB::ZBBroker&, const Client&)> make;
};
/// One call, which the address writes (see ::Tarvik::Expression).
struct Evaluation
{
  std::string expression;
};
/// The body is a JSON-RPC message.
struct RpcMessage
{
};
/// The connection becomes a WebSocket.
struct WebSocketHandshake
{
};
/// The body is a file for whoever takes uploads.
struct FileUpload
{
};
/// The gateway's figures, and those of its collectors.
struct MetricsRequest
{
};

/// What is to be done about a request.
using Route = std::variant<HttpAnswer, Work, Evaluation, RpcMessage, WebSocketHandshake, FileUpload, MetricsRequest>;

/// What the request of an admitted client leads to, told by its header alone.
/// On the gateway's thread: what it needs from modules belongs into Work.
Route findRoute(const boost::beast::http::request_header<>& header, const Client& client, ZB::ZBBroker& broker);

} // namespace Tarvik
