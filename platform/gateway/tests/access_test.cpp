#include <stdexcept>

#include <gtest/gtest.h>

#include <boost/beast/http/field.hpp>

#include <gateway/access.hpp>

#include "requestguard.hpp"

namespace http = boost::beast::http;
using namespace Tarvik;

TEST(MayCall, GivesEachRoleWhatItsTaskNeeds)
{
  const struct
  {
    Role least; ///< the first role that may
    const char* service;
    std::vector<const char*> methods;
  } cases[] = {
      {Role::Observer, "ZBBehaviorManager", {"getRunningBehaviors", "isBehaviorRunning", "hasBehavior", "resolveBehaviorName"}},
      {Role::Observer, "PackageManager", {"packages", "package", "hasPackage"}},
      {Role::Observer, "ZBFrameManager", {"behaviors"}},
      {Role::Observer, "ZBMemory", {"getData"}},
      {Role::Operator, "ZBBehaviorManager", {"runBehavior", "stopAllBehaviors"}},
      {Role::Operator, "Any", {"issue", "get", "packagesOfOthers"}},
      {Role::Operator, "ZBPreferences", {"readPrefFile"}},
      {Role::Admin, "ZBPreferences", {"writePrefFile", "removePrefFile"}},
      {Role::Admin, "PackageManager", {"install", "remove", "check"}},
      {Role::Admin, "ZBMemory", {"raiseEvent", "raiseMicroEvent", "insertData", "subscribeToEvent"}},
      {Role::Admin, "ZBFrameManager", {"createBehavior", "deleteBehavior", "_waitForStopped"}},
      {Role::Admin, "Tokens", {"add", "list", "remove", "getAnything"}},
      {Role::Admin, "Any", {"_internal"}},
  };
  for (const auto& [least, service, methods] : cases)
    for (const auto* const method : methods)
      for (const auto role : {Role::Observer, Role::Operator, Role::Admin})
        EXPECT_EQ(mayCall(role, service, method), role >= least) << roleName(role) << " " << service << "." << method;
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

namespace
{

http::fields header(std::initializer_list<std::pair<std::string, std::string>> fields)
{
  http::fields result;
  for (const auto& [name, value] : fields)
    result.insert(name, value);
  return result;
}

Door door(const char* address, std::uint16_t port, bool secure = false) { return {{boost::asio::ip::make_address(address), port}, secure}; }

} // namespace

TEST(RequestGuard, LetsInOnlyRequestsThatNameThisHostAndComeFromItsPages)
{
  struct Case
  {
    http::fields header;
    Door door;
    bool foreign;
  };
  const Case cases[] = {
      {header({{"Host", "127.0.0.1:7110"}}), door("127.0.0.1", 7110), false},
      {header({{"Host", "LocalHost:7110"}}), door("127.0.0.1", 7110), false},
      {header({{"Host", "[::1]:7110"}}), door("::1", 7110), false},
      {header({{"Host", "localhost"}}), door("127.0.0.1", 80), false},
      {header({{"Host", "10.1.2.3:7110"}}), door("10.1.2.3", 7110), false},
      {header({{"Host", "10.1.2.3:7110"}}), door("::ffff:10.1.2.3", 7110), false},
      {header({{"Host", "localhost:7110"}, {"Origin", "http://localhost:7110"}}), door("127.0.0.1", 7110), false},
      {header({{"Host", "localhost:7110"}, {"Origin", "https://localhost:7110"}}), door("127.0.0.1", 7110, true), false},
      {header({}), door("127.0.0.1", 7110), true},
      {header({{"Host", "localhost"}}), door("127.0.0.1", 7110), true},
      {header({{"Host", "localhost:7111"}}), door("127.0.0.1", 7110), true},
      {header({{"Host", "evil.example:7110"}}), door("127.0.0.1", 7110), true},
      {header({{"Host", "localhost:7110"}}), door("10.1.2.3", 7110), true},
      {header({{"Host", "localhost:7110"}, {"Host", "localhost:7110"}}), door("127.0.0.1", 7110), true},
      {header({{"Host", "localhost:7110"}, {"Origin", "http://127.0.0.1:7110"}}), door("127.0.0.1", 7110), true},
      {header({{"Host", "localhost:7110"}, {"Origin", "http://localhost:8000"}}), door("127.0.0.1", 7110), true},
      {header({{"Host", "localhost:7110"}, {"Origin", "http://localhost:7110"}}), door("127.0.0.1", 7110, true), true},
      {header({{"Host", "localhost:7110"}, {"Origin", "null"}}), door("127.0.0.1", 7110), true},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(findForeign(cases[i].header, cases[i].door).has_value(), cases[i].foreign) << "case " << i;
}

TEST(RequestGuard, FindsTheTokenInTheHeaderOrTheCookieOfItsPort)
{
  const auto here = door("127.0.0.1", 7110);
  EXPECT_EQ(presentedToken(header({{"Authorization", "Bearer abc"}}), here), "abc");
  EXPECT_EQ(presentedToken(header({{"Authorization", "bearer abc"}, {"Cookie", "tarvik_7110=xyz"}}), here), "abc");
  EXPECT_EQ(presentedToken(header({{"Cookie", "a=b; tarvik_7111=no; tarvik_7110=xyz; c=d"}}), here), "xyz");
  EXPECT_EQ(presentedToken(header({{"Authorization", "Basic abc"}}), here), "");
  EXPECT_EQ(presentedToken(header({{"Cookie", "xtarvik_7110=xyz; tarvik_7110"}}), here), "");
}
