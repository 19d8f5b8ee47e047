#include <stdexcept>

#include <gtest/gtest.h>

#include <boost/beast/http/field.hpp>

#include <gateway/access.hpp>

#include "admission.hpp"

namespace http = boost::beast::http;
using namespace Tarvik;

TEST(Roles, NameOfAMethodThatDeclaresNoAccessTellsWhoMayCallIt)
{
  const std::pair<Role, std::vector<const char*>> cases[] = {
      {Role::Observer, {"getData", "isRunning", "hasPackage", "resolveName", "get_", "packages", "package", "behaviors"}},
      {Role::Operator, {"runBehavior", "issue", "get", "packagesOfOthers", "services"}},
      {Role::Admin, {"_internal", "_getPackageUid"}}};
  for (const auto& [least, methods] : cases)
    for (const auto* const method : methods)
      EXPECT_EQ(vu::leastRoleByName(method), least) << method;
}

TEST(Access, TellsWhoStandsBehindATokenUntilItIsRemoved)
{
  Access access;
  const auto one = access.add("one-secret", {"alice", Role::Admin});
  const auto two = access.add(digestOf("two-secret"), {"screen", Role::Observer});
  EXPECT_EQ(access.identify("one-secret")->name, "alice");
  EXPECT_EQ(access.identify("two-secret")->role, Role::Observer);
  EXPECT_EQ(access.identify("two-secret")->number, two);
  for (const auto* const wrong : {"", "one-secre", "one-secret ", "one-secrets", "One-secret"})
    EXPECT_FALSE(access.identify(wrong)) << wrong;
  EXPECT_THROW(access.add("", {"nobody", Role::Admin}), std::invalid_argument);
  std::vector<std::uint64_t> removed;
  access.removed.connect(
      [&](std::uint64_t number)
      {
        EXPECT_FALSE(access.identify("one-secret")) << "not any more when others are told";
        removed.push_back(number);
      });
  access.remove(one);
  access.remove(one);
  EXPECT_EQ(removed, std::vector{one});
  EXPECT_TRUE(access.identify("two-secret"));
  EXPECT_NE(access.add("one-secret", {"alice", Role::Admin}), one) << "an old connection is not the new token's";
}

TEST(Admission, LetsInWhoNamesThisHostAndPresentsATokenFromItsOwnPages)
{
  Access access;
  access.add("abc", {"alice", Role::Admin});
  access.add("xyz", {"bob", Role::Admin});
  const auto door = [](const char* address, std::uint16_t port = 7110, bool secure = false) {
    return Door{{boost::asio::ip::make_address(address), port}, secure};
  };
  const auto here = door("127.0.0.1");
  using Fields = std::vector<std::pair<const char*, const char*>>;
  const std::pair<const char*, const char*> host{"Host", "localhost:7110"};
  const std::pair<const char*, const char*> bearer{"Authorization", "Bearer abc"};
  const struct
  {
    Fields fields;
    Door door;
    std::string outcome; ///< a name, or the status
  } cases[] = {
      {{{"Host", "127.0.0.1:7110"}, bearer}, here, "alice"},
      {{{"Host", "LocalHost:7110"}, bearer}, here, "alice"},
      {{{"Host", "[::1]:7110"}, bearer}, door("::1"), "alice"},
      {{{"Host", "localhost"}, bearer}, door("127.0.0.1", 80), "alice"},
      {{{"Host", "localhost"}, bearer}, door("127.0.0.1", 443, true), "alice"},
      {{{"Host", "10.1.2.3:7110"}, bearer}, door("10.1.2.3"), "alice"},
      {{{"Host", "10.1.2.3:7110"}, bearer}, door("::ffff:10.1.2.3"), "alice"},
      {{host, bearer, {"Origin", "http://localhost:7110"}}, here, "alice"},
      {{host, bearer, {"Origin", "https://localhost:7110"}}, door("127.0.0.1", 7110, true), "alice"},
      {{bearer}, here, "403"},
      {{{"Host", "localhost"}, bearer}, here, "403"},
      {{{"Host", "localhost:7111"}, bearer}, here, "403"},
      {{{"Host", "evil.example:7110"}, bearer}, here, "403"},
      {{host, bearer}, door("10.1.2.3"), "403"},
      {{host, host, bearer}, here, "403"},
      {{host, bearer, {"Origin", "http://127.0.0.1:7110"}}, here, "403"},
      {{host, bearer, {"Origin", "http://localhost:8000"}}, here, "403"},
      {{host, bearer, {"Origin", "http://localhost:7110"}}, door("127.0.0.1", 7110, true), "403"},
      {{host, bearer, {"Origin", "null"}}, here, "403"},
      {{host, {"Authorization", "bearer abc"}, {"Cookie", "tarvik_7110=xyz"}}, here, "alice"},
      {{host, {"Cookie", "a=b; tarvik_7111=no; tarvik_7110=xyz; c=d"}}, here, "bob"},
      {{host, {"Authorization", "Basic abc"}}, here, "401"},
      {{host, {"Cookie", "xtarvik_7110=xyz; tarvik_7110"}}, here, "401"},
  };
  const auto admitted = [&access](const Fields& fields, const Door& at, const char* target)
  {
    http::request_header<> header;
    header.method(http::verb::get);
    header.target(target);
    for (const auto& [name, value] : fields)
      header.insert(name, value);
    return admit(header, at, access);
  };
  for (std::size_t i = 0; i < std::size(cases); ++i)
  {
    const auto outcome = admitted(cases[i].fields, cases[i].door, "/");
    const auto* const answer = std::get_if<HttpAnswer>(&outcome);
    EXPECT_EQ(answer ? std::to_string(answer->status) : std::get<Identity>(outcome).name, cases[i].outcome) << "case " << i;
  }
  for (const bool secure : {false, true})
    EXPECT_EQ(std::get<HttpAnswer>(admitted({host}, door("127.0.0.1", 7110, secure), "/?token=abc")).headers.back().second,
              std::string("tarvik_7110=abc; HttpOnly; SameSite=Strict; Path=/") + (secure ? "; Secure" : ""));
}
