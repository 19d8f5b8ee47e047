#include "fixture.hpp"

#include <gmock/gmock.h>

#include <tokens.hpp>
#include <zb/zberror.hpp>

using namespace Tarvik;
using namespace HostTest;
using testing::HasSubstr;

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
    return broker->createModule<Tokens>("Tokens", RootLayout(root), access,
                                        [this](const std::string& token)
                                        {
                                          local = full ? local : token;
                                          return !full;
                                        });
  }
  std::string file() const { return readFile(root / "tokens"); }

  const std::shared_ptr<ZB::ZBBroker> broker = ZB::ZBBroker::create();
  std::shared_ptr<Access> access;
  std::string local;
  bool full = false;
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
      {"", "admin", "1 to 32"},
      {std::string(33, 'x'), "admin", "1 to 32"},
      {"a b", "admin", "1 to 32"},
      {"-a", "admin", "1 to 32"},
      {"\xc3\xa4", "admin", "1 to 32"},
      {"local", "admin", "\"local\" is reserved"},
      {"host", "admin", "\"host\" is reserved"},
      {"system", "observer", "\"system\" is reserved"},
      {"Tokens", "admin", "\"Tokens\" is reserved"},
      {"TOKENS", "admin", "\"TOKENS\" is reserved"},
      {"Host", "admin", "\"Host\" is reserved"},
      {"ADMIN", "admin", "\"ADMIN\" is reserved"},
      {"tarvik", "admin", "\"tarvik\" is reserved"},
      {"bob", "root", "there is no role \"root\": give observer, operator or admin"},
      {"alice", "admin", "already"},
  };
  const auto before = file();
  for (const auto& [name, role, text] : cases)
    EXPECT_THAT(errorOf([&tokens, &name = name, &role = role] { tokens.add(name, role); }), HasSubstr(text)) << name;
  EXPECT_THAT(errorOf([&] { tokens.add(token, "admin"); }), testing::Not(HasSubstr(token)));
  EXPECT_THAT(errorOf([&] { tokens.remove(token); }), testing::Not(HasSubstr(token))) << "taken for its name";
  EXPECT_EQ(file(), before);
  std::filesystem::remove(root / "tokens");
  std::filesystem::create_directory(root / "tokens"); // which no file can replace
  EXPECT_THAT(errorOf([&] { tokens.add("bob", "admin"); }), HasSubstr("was not made"));
  EXPECT_TRUE(access->identify(token));
  EXPECT_EQ(tokens.list().size(), 1U);
}

TEST_F(TokensService, RemovalCountsAtOnceAndIsWrittenAsSoonAsItCanBe)
{
  auto& tokens = load();
  const auto token = tokens.add("alice", "admin");
  tokens.add("bob", "observer");
  EXPECT_EQ(tokens.remove("bob"), (vu::Value{{"durable", true}, {"reason", ""}}));
  std::filesystem::rename(root / "tokens", root / "kept");
  std::filesystem::create_directory(root / "tokens"); // which no file can replace
  const auto outcome = tokens.remove("alice");
  EXPECT_FALSE(outcome["durable"]);
  EXPECT_THAT(outcome["reason"].get<std::string>(), HasSubstr("tokens"));
  EXPECT_FALSE(access->identify(token));
  EXPECT_TRUE(tokens.list().empty());
  std::filesystem::remove(root / "tokens");
  std::filesystem::rename(root / "kept", root / "tokens");
  EXPECT_THAT(file(), HasSubstr("alice"));
  EXPECT_TRUE(eventually([this] { return file().find("alice") == std::string::npos; }));
  load();
  EXPECT_FALSE(access->identify(token));
}

TEST_F(TokensService, EndAndLastUseAreToldAndOutliveTheHost)
{
  const auto token = load().addTemporary("guest", "operator", 3600);
  load();
  EXPECT_EQ(access->identify(token)->name, "guest");
  const auto told = load().list()[0];
  EXPECT_THAT(told["lastUsed"].get<std::string>(), testing::MatchesRegex("20..-..-..T..:..:..Z")) << "written at the end";
  EXPECT_GT(told["expires"].get<std::string>(), told["created"].get<std::string>());
  auto past = file();
  past.replace(past.find("\"20", past.find("expires\":")), 22, "\"2001-02-03T04:05:06Z\"");
  broker->removeModule("Tokens");
  writeFile(root / "tokens", past);
  auto& tokens = load();
  EXPECT_FALSE(access->identify(token));
  EXPECT_EQ(tokens.list()[0]["expires"], "2001-02-03T04:05:06Z") << "it is told why nobody comes in";
  EXPECT_TRUE(access->identify(tokens.add("guest", "observer"))) << "its name is free again";
  EXPECT_EQ(tokens.list().size(), 1U);
  for (const int seconds : {0, -1, 400000000})
    EXPECT_THAT(errorOf([&] { tokens.addTemporary("x", "observer", seconds); }), HasSubstr("seconds"));
}

TEST_F(TokensService, LocalTokenIsRenewedWhileTheHostRuns)
{
  auto& tokens = load();
  const auto old = local;
  EXPECT_EQ(access->identify(old)->role, Role::Admin);
  tokens.renew();
  EXPECT_NE(local, old);
  EXPECT_EQ(access->identify(local)->name, "local");
  EXPECT_TRUE(eventually([&] { return !access->identify(old); }));
  EXPECT_TRUE(access->identify(local));
  full = true;
  EXPECT_THAT(errorOf([&] { tokens.renew(); }), HasSubstr("not renewed: the disk is full"));
  EXPECT_TRUE(access->identify(local));
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
    writeFile(root / "tokens", text);
    EXPECT_THAT(TestSupport::serviceErrorOf([&] { load(); }).description(), HasSubstr("the tokens in " + (root / "tokens").string()))
        << text;
    EXPECT_EQ(file(), text);
  }
  writeFile(root / "tokens", "{\"tokens\":[" + good + "]}");
  EXPECT_EQ(load().list().size(), 1U);
}

TEST_F(RootFixture, TokensOfARunningHostLetInAndOutAgain)
{
  Host host(options);
  host.start();
  const auto token = connect()->call("Tokens.add", {"alice", "operator"}).value().get<std::string>();
  host.stop();
  host.start();
  const auto alice = connect(token);
  EXPECT_EQ(TestSupport::serviceErrorOf([&] { alice->call("Tokens.list", vu::Value::array()).value(); }).kind(),
            vu::ServiceError::Kind::NotAllowed);
  const vu::Promise<std::string> reason;
  alice->setClosedCallback([reason](const std::string& text) { reason.setValue(text); });
  connect()->call("Tokens.remove", {"alice"}).value();
  ASSERT_TRUE(reason.future().wait(TestSupport::patience));
  EXPECT_EQ(reason.future().value(), "the token was removed");
  EXPECT_THROW(connect(token), vu::ServiceError);
  host.stop();
  writeFile(root / "tokens", "nonsense");
  EXPECT_THAT(errorOf([&] { host.start(); }), HasSubstr((root / "tokens").string()));
}

TEST_F(RootFixture, TokenOfARunLetsInWithTheRightsOfItsBehaviorUntilTheRunEnds)
{
  const auto left = writeFile(root / "run/behaviors/99", "left by a host that was killed");
  Host host(options);
  host.start();
  EXPECT_FALSE(std::filesystem::exists(left));
  EXPECT_EQ(mode("run/behaviors"), 0700U);
  const auto local = connect();
  const auto run = local->call("Tokens._beginRun", {"demo/t for alice", {"Tokens.list"}}).value();
  const auto file = std::filesystem::path(run["file"].get<std::string>()).lexically_relative(root.path()).string();
  EXPECT_EQ(mode(file), 0600U);
  const auto token = line(file);
  const auto program = connect(token);
  EXPECT_EQ(program->call("session.whoami", vu::Value::array()).value()["name"], "demo/t for alice");
  EXPECT_EQ(program->call("Tokens.list", vu::Value::array()).value(), vu::Value::array()) << "runs are not in it";
  program->call("ZBMemory.insertData", {"k", 1}).value();
  const auto refused = TestSupport::serviceErrorOf([&] { program->call("Tokens.add", {"eve", "admin"}).value(); });
  EXPECT_EQ(refused.kind(), vu::ServiceError::Kind::NotAllowed);
  EXPECT_THAT(refused.description(), HasSubstr("does not say <may call=\"Tokens.add\"/>"));
  EXPECT_THAT(errorOf([&] { local->call("Tokens._beginRun", {"x", {"Tokens"}}).value(); }), HasSubstr("\"Tokens\" is neither"));
  const vu::Promise<std::string> reason;
  program->setClosedCallback([reason](const std::string& text) { reason.setValue(text); });
  for (int i = 0; i < 2; ++i)
    local->call("Tokens._endRun", vu::Value::array({run["number"]})).value();
  ASSERT_TRUE(reason.future().wait(TestSupport::patience));
  EXPECT_EQ(reason.future().value(), "the run has ended");
  EXPECT_FALSE(exists(file));
  EXPECT_THROW(connect(token), vu::ServiceError);
}

} // namespace
