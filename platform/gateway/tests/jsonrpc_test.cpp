#include <stdexcept>

#include <gtest/gtest.h>

#include "jsonrpc.hpp"

using namespace Tarvik;
using Kind = vu::ServiceError::Kind;

namespace
{

/// The code of the ready answer to a message of one entry.
int refusal(const std::string& text)
{
  const auto message = JsonRpc::parse(text);
  const auto* const answer = std::get_if<std::string>(&message.entries.at(0));
  return answer ? vu::Value::parse(*answer)["error"]["code"].get<int>() : 0;
}

} // namespace

TEST(JsonRpcParse, RefusesWhatIsNoRequestWithTheCodeThatSaysWhy)
{
  EXPECT_EQ(refusal("{"), JsonRpc::ParseError);
  EXPECT_EQ(refusal(""), JsonRpc::ParseError);
  EXPECT_EQ(refusal("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"a.b\xff\"}"), JsonRpc::ParseError);
  EXPECT_EQ(refusal("[]"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal("1"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"id":1,"method":"a.b"})"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"jsonrpc":"1.0","id":1,"method":"a.b"})"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"jsonrpc":"2.0","id":1})"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"jsonrpc":"2.0","id":1,"method":7})"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"jsonrpc":"2.0","id":[1],"method":"a.b"})"), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"jsonrpc":"2.0","id":1,"method":"ab"})"), JsonRpc::MethodNotFound);
  EXPECT_EQ(refusal(R"({"jsonrpc":"2.0","id":1,"method":"a.b","params":{"x":1}})"), JsonRpc::InvalidParams);
  EXPECT_EQ(refusal(std::string(1000000, '[')), JsonRpc::InvalidRequest);
  EXPECT_EQ(refusal(R"({"jsonrpc":"2.0","id":1,"method":"a.b","params":[")" + std::string(1000, '[') + "\"]}"), 0)
      << "brackets in a text are not nested";
}

TEST(JsonRpcParse, TellsRequestsNotificationsAndBatchesApart)
{
  const auto message = JsonRpc::parse(R"([{"jsonrpc":"2.0","id":"x","method":"S.m","params":[1]},{"jsonrpc":"2.0","method":"S.n"},3])");
  ASSERT_TRUE(message.batch);
  ASSERT_EQ(message.entries.size(), 3u);
  const auto& request = std::get<JsonRpc::Request>(message.entries[0]);
  EXPECT_EQ(request.fullName(), "S.m");
  EXPECT_EQ(request.params, vu::Value::array({1}));
  EXPECT_FALSE(request.notification);
  EXPECT_TRUE(std::get<JsonRpc::Request>(message.entries[1]).notification);
  EXPECT_TRUE(std::holds_alternative<std::string>(message.entries[2]));
}

TEST(JsonRpcError, CarriesModuleMethodAndDescriptionWithTheCodeOfItsKind)
{
  JsonRpc::Request request;
  request.service = "S";
  request.method = "m";
  const auto answer = [&request](auto error)
  { return vu::Value::parse(JsonRpc::error(7, request, std::make_exception_ptr(error)))["error"]; };
  const std::pair<Kind, int> cases[] = {
      {Kind::Service, -32000},          {Kind::UnknownService, -32601}, {Kind::UnknownMethod, -32601},
      {Kind::InvalidArguments, -32602}, {Kind::NotAllowed, -32001},     {Kind::Overloaded, -32002},
  };
  for (const auto& [kind, code] : cases)
    EXPECT_EQ(answer(vu::ServiceError("M", "x", "text", kind))["code"], code);
  EXPECT_EQ(answer(vu::ServiceError("M", "x", "text")),
            (vu::Value{{"code", -32000}, {"message", "text"}, {"data", {{"module", "M"}, {"method", "x"}, {"description", "text"}}}}));
  EXPECT_EQ(answer(std::runtime_error("plain"))["data"], (vu::Value{{"module", "S"}, {"method", "m"}, {"description", "plain"}}));
  EXPECT_EQ(answer(vu::ServiceError("M", "", "t", Kind::UnknownService))["data"]["unknown"], "service");
}

TEST(JsonRpcDump, ReplacesWhatIsNoUtf8) { EXPECT_EQ(vu::Value::parse(JsonRpc::result(1, "a\xff"))["result"], "a\xef\xbf\xbd"); }
