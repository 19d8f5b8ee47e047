#include <gtest/gtest.h>

#include "jsonrpc.hpp"

using namespace Tarvik;

TEST(JsonRpcParse, RefusesWhatIsNoRequestWithTheCodeThatSaysWhy)
{
  std::string many = "1";
  while (many.size() < 3 * JsonRpc::maximumParts)
    many += ",{}";
  const std::pair<std::string, int> cases[] = {
      {"{", -32700},
      {"", -32700},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"a.b\xff\"}", -32700},
      {"[]", -32600},
      {"1", -32600},
      {R"({"id":1,"method":"a.b"})", -32600},
      {R"({"jsonrpc":"1.0","id":1,"method":"a.b"})", -32600},
      {R"({"jsonrpc":"2.0","id":1})", -32600},
      {R"({"jsonrpc":"2.0","id":1,"method":7})", -32600},
      {R"({"jsonrpc":"2.0","id":[1],"method":"a.b"})", -32600},
      {std::string(1000000, '['), -32600},
      {R"({"jsonrpc":"2.0","id":1,"method":"a.b","params":[)" + many + "]}", -32600},
      {R"({"jsonrpc":"2.0","id":1,"method":"ab"})", -32601},
      {R"({"jsonrpc":"2.0","id":1,"method":"a.b","params":{"x":1}})", -32602},
      {R"({"jsonrpc":"2.0","id":1,"method":"a.b","params":[")" + std::string(1000, '[') + "\"]}", 0}, // in a text, nothing is nested
  };
  for (const auto& [text, code] : cases)
  {
    const auto message = JsonRpc::parse(text);
    const auto* const answer = std::get_if<std::string>(&message.entries.at(0));
    EXPECT_EQ(answer ? vu::Value::parse(*answer)["error"]["code"].get<int>() : 0, code) << text.substr(0, 60);
  }
}

TEST(JsonRpcDump, ReplacesWhatIsNoUtf8) { EXPECT_EQ(vu::Value::parse(JsonRpc::result(1, "a\xff"))["result"], "a\xef\xbf\xbd"); }
