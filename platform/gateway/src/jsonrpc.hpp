#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <network/jsonrpccode.hpp>
#include <vu/error.hpp>
#include <vu/value.hpp>

/// JSON-RPC 2.0 as text and back.
namespace Tarvik::JsonRpc
{

/// Deeper values are refused: they would be walked recursively.
constexpr std::size_t maximumDepth = 128;
/// Arrays, objects and strings of a message: each takes many times its text.
constexpr std::size_t maximumParts = 200000;
/// A longer batch is refused whole.
constexpr std::size_t maximumBatch = 100;
/// A longer message takes long enough to read that others would wait.
constexpr std::size_t longMessage = 16 << 10;

struct Request
{
  vu::Value id;              ///< null for a notification
  bool notification = false; ///< nobody wants an answer
  std::string service;
  std::string method;
  vu::Value params = vu::Value::array();

  std::string fullName() const { return service + "." + method; }
};

/// What a message holds: each entry a request, or the ready answer to what is
/// none, empty for a notification.
struct Message
{
  bool batch = false;
  std::vector<std::variant<Request, std::string>> entries;
};

/// Never throws for bad input; the answers say what is wrong.
Message parse(std::string_view text);

std::string result(const vu::Value& id, const vu::Value& value);
/// The same for a result that is JSON already.
std::string resultOfText(const vu::Value& id, const std::string& result);
std::string error(const vu::Value& id, network::JsonRpcCode code, const std::string& message, const vu::Value& data = {});
/// The answer for what a call has thrown.
std::string error(const vu::Value& id, const std::string& service, const std::string& method, const std::exception_ptr& failure);

std::string notification(const std::string& method, const vu::Value& params);

/// What went wrong, whole: for errors that are no ServiceError, `service` and
/// `method` are those that were called.
vu::ServiceError toServiceError(const std::exception_ptr& failure, const std::string& service, const std::string& method);

/// JSON whatever bytes its texts hold: what is no UTF-8 is replaced.
std::string dump(const vu::Value& value);

} // namespace Tarvik::JsonRpc
