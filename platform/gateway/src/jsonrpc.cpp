#include "jsonrpc.hpp"

#include <stdexcept>

#include <vu/future.hpp>
#include <vu/text.hpp>

#include "failureforms.hpp"

namespace Tarvik::JsonRpc
{

namespace
{

constexpr std::size_t longestFault = 300;

/// Why `text` would take too much to read; empty where it does not.
std::string findExcess(std::string_view text)
{
  std::size_t depth = 0;
  std::size_t parts = 0;
  bool inText = false;
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    const char c = text[i];
    if (inText)
    {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inText = false;
      continue;
    }
    inText = c == '"';
    const bool opens = c == '[' || c == '{';
    if (opens && ++depth > maximumDepth)
      return "values may be nested " + std::to_string(maximumDepth) + " deep";
    if ((opens || inText) && ++parts > maximumParts)
      return "a message may have " + std::to_string(maximumParts) + " arrays, objects and strings";
    if ((c == ']' || c == '}') && depth > 0)
      --depth;
  }
  return {};
}

/// What is wanted of `value` is moved out of it.
std::variant<Request, std::string> parseEntry(vu::Value& value)
{
  const auto invalid = [](const vu::Value& id, const std::string& why)
  { return error(id, network::InvalidRequest, "invalid request: " + why); };
  if (!value.is_object())
    return invalid(nullptr, "it is no object");
  Request request;
  if (const auto id = value.find("id"); id == value.end())
    request.notification = true;
  else if (!id->is_string() && !id->is_number() && !id->is_null())
    return invalid(nullptr, "\"id\" must be a string, a number or null");
  else
    request.id = std::move(*id);
  if (const auto version = value.find("jsonrpc"); version == value.end() || *version != "2.0")
    return invalid(request.id, "\"jsonrpc\" must be \"2.0\"");
  const auto method = value.find("method");
  if (method == value.end() || !method->is_string())
    return invalid(request.id, "\"method\" must be a string");
  const auto& name = method->get_ref<const std::string&>();
  const auto dot = name.rfind('.');
  if (dot == std::string::npos)
  {
    if (request.notification)
      return std::string();
    return error(request.id, network::MethodNotFound, "'" + vu::shortened(name) + "' is no method: name it \"Service.method\"",
                 {{"unknown", "method"}});
  }
  request.service = name.substr(0, dot);
  request.method = name.substr(dot + 1);
  if (const auto params = value.find("params"); params != value.end())
  {
    if (!params->is_array())
    {
      if (request.notification)
        return std::string();
      return error(request.id, network::InvalidParams, "\"params\" must be an array: parameters are taken by position");
    }
    request.params = std::move(*params);
  }
  return request;
}

} // namespace

Message parse(std::string_view text)
{
  Message message;
  if (const auto excess = findExcess(text); !excess.empty())
  {
    message.entries.emplace_back(error(nullptr, network::InvalidRequest, "invalid request: " + excess));
    return message;
  }
  vu::Value value;
  try
  {
    value = vu::Value::parse(text);
  }
  catch (const vu::Value::exception& fault)
  {
    message.entries.emplace_back(
        error(nullptr, network::ParseError, std::string("the message is no JSON: ") + vu::shortened(fault.what(), longestFault)));
    return message;
  }
  if (!value.is_array())
    message.entries.push_back(parseEntry(value));
  else if (value.empty() || value.size() > maximumBatch)
    message.entries.emplace_back(
        error(nullptr, network::InvalidRequest,
              "invalid request: a batch of " + std::to_string(value.size()) + ", which may have 1 to " + std::to_string(maximumBatch)));
  else
  {
    message.batch = true;
    for (auto& entry : value)
      message.entries.push_back(parseEntry(entry));
  }
  return message;
}

std::string result(const vu::Value& id, const vu::Value& value) { return resultOfText(id, dump(value)); }

std::string resultOfText(const vu::Value& id, const std::string& result)
{
  return R"({"id":)" + dump(id) + R"(,"jsonrpc":"2.0","result":)" + result + "}";
}

std::string error(const vu::Value& id, network::JsonRpcCode code, const std::string& message, const vu::Value& data)
{
  vu::Value error{{"code", code}, {"message", message}};
  if (!data.is_null())
    error["data"] = data;
  return dump({{"jsonrpc", "2.0"}, {"id", id}, {"error", error}});
}

std::string error(const vu::Value& id, const std::string& service, const std::string& method, const std::exception_ptr& failure)
{
  using Kind = vu::ServiceError::Kind;
  const auto known = toServiceError(failure, service, method);
  vu::Value data{{"module", known.module()}, {"method", known.method()}, {"description", known.description()}};
  if (known.kind() == Kind::UnknownService || known.kind() == Kind::UnknownMethod)
    data["unknown"] = known.kind() == Kind::UnknownService ? "service" : "method";
  return error(id, formOf(known.kind()).code, known.description(), data);
}

std::string notification(const std::string& method, const vu::Value& params)
{
  return dump({{"jsonrpc", "2.0"}, {"method", method}, {"params", params}});
}

vu::ServiceError toServiceError(const std::exception_ptr& failure, const std::string& service, const std::string& method)
{
  try
  {
    std::rethrow_exception(failure);
  }
  catch (const vu::ServiceError& known)
  {
    return {known.module(), known.method(), known.description(), known.kind()};
  }
  catch (...)
  {
    return {service, method, vu::errorText(std::current_exception())};
  }
}

std::string dump(const vu::Value& value) { return value.dump(-1, ' ', false, vu::Value::error_handler_t::replace); }

} // namespace Tarvik::JsonRpc
