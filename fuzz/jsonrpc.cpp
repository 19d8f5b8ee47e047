#include <jsonrpc.hpp>

#include "input.hpp"

namespace JsonRpc = Tarvik::JsonRpc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  const auto message = JsonRpc::parse(asText(data, size));
  require(message.batch || message.entries.size() == 1);
  for (const auto& entry : message.entries)
    if (const auto* request = std::get_if<JsonRpc::Request>(&entry))
    {
      // What was understood can be answered, and the answer can be read.
      require(request->params.is_array());
      const auto answer = JsonRpc::result(request->id, request->params);
      require(vu::Value::parse(answer).contains("result"));
    }
    else if (const auto& answer = std::get<std::string>(entry); !answer.empty())
      require(vu::Value::parse(answer).contains("error"));
  return 0;
}
