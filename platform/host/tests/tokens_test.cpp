#include "fixture.hpp"

#include <future>

#include <gmock/gmock.h>

#include <host/host.hpp>
#include <tokens.hpp>
#include <vu/remotesession.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

using namespace Tarvik;
using HostTest::RootFixture;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace
{

class TokensService : public RootFixture
{
protected:
  ~TokensService() override { broker->shutdown(); }

  Tokens& load()
  {
    broker->removeModule("Tokens");
    access = std::make_shared<Access>();
    return broker->createModule<Tokens>("Tokens", root / "tokens", access);
  }
  std::string file() const
  {
    std::ifstream stream(root / "tokens");
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  const std::shared_ptr<ZB::ZBBroker> broker = ZB::ZBBroker::create();
  std::shared_ptr<Access> access;
};

TEST_F(TokensService, TokenIsKnownByItsDigestAloneAndOutlivesTheHost)
{
  const auto token = load().add("alice", "operator");
  load().add("screen-2.b_c", "observer");
  EXPECT_EQ(token.size(), 64U);
  EXPECT_EQ(mode("tokens"), 0600U);
  EXPECT_EQ(file().find(token), std::string::npos);
  EXPECT_THAT(file(), HasSubstr(toHexadecimal(digestOf(token))));
  auto& tokens = load();
  ASSERT_TRUE(access->identify(token));
  EXPECT_EQ(access->identify(token)->name, "alice");
  EXPECT_EQ(access->identify(token)->role, Role::Operator);
  const auto list = tokens.list();
  EXPECT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0]["name"].get<std::string>() + list[0]["role"].get<std::string>() + list[1]["role"].get<std::string>(),
            "aliceoperatorobserver");
  EXPECT_THAT(list[0]["created"].get<std::string>(), testing::MatchesRegex("20..-..-..T..:..:..Z"));
  EXPECT_EQ(list.dump().find(token.substr(0, 8)), std::string::npos);
  tokens.remove("alice");
  EXPECT_FALSE(access->identify(token));
  load();
  EXPECT_FALSE(access->identify(token));
}

TEST_F(TokensService, RefusalNamesTheFaultAndChangesNothing)
{
  auto& tokens = load();
  const auto token = tokens.add("alice", "admin");
  const struct
  {
    std::string name;
    std::string role;
    const char* text;
  } cases[] = {
      {"", "admin", "1 to 32"},           {std::string(33, 'x'), "admin", "1 to 32"},
      {token, "admin", "1 to 32"},        {"a b", "admin", "1 to 32"},
      {"-a", "admin", "1 to 32"},         {"a\n", "admin", "1 to 32"},
      {"\xc3\xa4", "admin", "1 to 32"},   {"local", "admin", "reserved"},
      {"system", "observer", "reserved"}, {"bob", "root", "there is no role \"root\""},
      {"alice", "admin", "already"},      {"Tokens", "admin", "reserved"},
  };
  const auto before = file();
  for (const auto& [name, role, text] : cases)
  {
    const auto add = [&tokens, &name = name, &role = role] { tokens.add(name, role); };
    EXPECT_THAT(add, ThrowsMessage<ZB::ZBError>(HasSubstr(text))) << name;
  }
  EXPECT_THAT([&] { tokens.remove(token); }, ThrowsMessage<ZB::ZBError>(testing::Not(HasSubstr(token)))) << "taken for its name";
  EXPECT_EQ(file(), before);
  std::filesystem::remove(root / "tokens");
  std::filesystem::create_directory(root / "tokens"); // which no file can replace
  EXPECT_THAT([&] { tokens.add("bob", "admin"); }, ThrowsMessage<ZB::ZBError>(HasSubstr("was not made")));
  EXPECT_THAT([&] { tokens.remove("alice"); }, ThrowsMessage<ZB::ZBError>(HasSubstr("still good")));
  EXPECT_TRUE(access->identify(token));
  EXPECT_EQ(tokens.list().size(), 1U);
}

TEST_F(TokensService, FileThatIsDamagedIsNamedAtTheStart)
{
  const std::string digest(64, '0');
  const auto entry = [](const std::string& name, const std::string& role, const std::string& sha)
  { return R"({"name":")" + name + R"(","role":")" + role + R"(","created":"2026-03-04T10:20:30Z","sha256":")" + sha + "\"}"; };
  const auto good = entry("alice", "admin", digest);
  for (const auto& text :
       {std::string(""), std::string("{"), std::string("[]"), std::string("{}"), std::string(R"({"tokens":[{}]})"), "{\"tokens\":[" + good,
        "{\"tokens\":[" + good + "," + good + "]}", "{\"tokens\":[" + entry("local", "admin", digest) + "]}",
        "{\"tokens\":[" + entry("a b", "admin", digest) + "]}", "{\"tokens\":[" + entry("alice", "root", digest) + "]}",
        "{\"tokens\":[" + entry("alice", "admin", digest + "0") + "]}",
        "{\"tokens\":[" + entry("alice", "admin", std::string(64, 'g')) + "]}"})
  {
    std::ofstream(root / "tokens") << text;
    EXPECT_THAT([&] { load(); }, ThrowsMessage<ZB::ZBError>(HasSubstr("the tokens in " + (root / "tokens").string()))) << text;
    EXPECT_EQ(file(), text);
  }
  std::ofstream(root / "tokens") << "{\"tokens\":[" + good + "]}";
  EXPECT_EQ(load().list().size(), 1U);
}

TEST_F(RootFixture, TokensOfARunningHostLetInAndOutAgain)
{
  Host::Options options;
  options.root = root;
  options.listen = "127.0.0.1:0";
  options.moduleDirectory = TARVIK_MODULES;
  Host host(options);
  host.start();
  const auto connect = [&](const std::string& token) {
    return std::make_unique<vu::RemoteSession>(vu::RemoteSession::Options{host.url(), token, std::chrono::milliseconds(10000), {}});
  };
  const auto token = connect(read("run/token"))->call("Tokens.add", {"alice", "operator"}).value().get<std::string>();
  host.stop();
  host.start();
  const auto alice = connect(token);
  EXPECT_THROW(alice->call("Tokens.list", vu::Value::array()).value(), vu::ServiceError);
  std::promise<std::string> reason;
  alice->setClosedCallback([&reason](const std::string& text) { reason.set_value(text); });
  connect(read("run/token"))->call("Tokens.remove", {"alice"}).value();
  auto closed = reason.get_future();
  ASSERT_EQ(closed.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(closed.get(), "the token was removed");
  EXPECT_THROW(connect(token), vu::ServiceError);
  host.stop();
  std::ofstream(root / "tokens") << "nonsense";
  EXPECT_THAT([&] { host.start(); }, ThrowsMessage<std::exception>(HasSubstr((root / "tokens").string())));
}

} // namespace
