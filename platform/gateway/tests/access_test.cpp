#include <stdexcept>

#include <gtest/gtest.h>

#include <boost/beast/http/field.hpp>

#include <gateway/access.hpp>

#include "requestguard.hpp"

namespace http = boost::beast::http;
using namespace Tarvik;

TEST(MayCall, GivesEachRoleWhatItsTaskNeeds)
{
  struct Case
  {
    const char* service;
    const char* method;
    Role least; ///< the first role that may
  };
  const Case cases[] = {
      {"ZBBehaviorManager", "getRunningBehaviors", Role::Observer},
      {"ZBBehaviorManager", "isBehaviorRunning", Role::Observer},
      {"ZBBehaviorManager", "hasBehavior", Role::Observer},
      {"ZBBehaviorManager", "resolveBehaviorName", Role::Observer},
      {"PackageManager", "packages", Role::Observer},
      {"PackageManager", "package", Role::Observer},
      {"PackageManager", "hasPackage", Role::Observer},
      {"ZBFrameManager", "behaviors", Role::Observer},
      {"ZBMemory", "getData", Role::Observer},
      {"ZBBehaviorManager", "runBehavior", Role::Operator},
      {"ZBBehaviorManager", "stopAllBehaviors", Role::Operator},
      {"Any", "issue", Role::Operator},
      {"Any", "get", Role::Operator},
      {"Any", "packagesOfOthers", Role::Operator},
      {"ZBPreferences", "readPrefFile", Role::Operator},
      {"ZBPreferences", "writePrefFile", Role::Admin},
      {"ZBPreferences", "removePrefFile", Role::Admin},
      {"PackageManager", "install", Role::Admin},
      {"PackageManager", "remove", Role::Admin},
      {"ZBMemory", "raiseEvent", Role::Admin},
      {"ZBMemory", "raiseMicroEvent", Role::Admin},
      {"ZBMemory", "insertData", Role::Admin},
      {"ZBMemory", "subscribeToEvent", Role::Admin},
      {"ZBFrameManager", "createBehavior", Role::Admin},
      {"ZBFrameManager", "deleteBehavior", Role::Admin},
      {"ZBFrameManager", "_waitForStopped", Role::Admin},
      {"Any", "_internal", Role::Admin},
  };
  for (const auto& [service, method, least] : cases)
    for (const auto role : {Role::Observer, Role::Operator, Role::Admin})
    {
      SCOPED_TRACE(std::string(roleName(role)) + " " + service + "." + method);
      EXPECT_EQ(mayCall(role, service, method), role >= least);
    }
}

TEST(Access, TellsWhoStandsBehindAToken)
{
  Access access;
  access.add("one-secret", {"local", Role::Admin});
  access.add("two-secret", {"screen", Role::Observer});
  EXPECT_EQ(access.identify("one-secret")->name, "local");
  EXPECT_EQ(access.identify("two-secret")->role, Role::Observer);
  for (const auto* const wrong : {"", "one-secre", "one-secret ", "one-secrets", "One-secret"})
    EXPECT_FALSE(access.identify(wrong)) << wrong;
  EXPECT_THROW(access.add("", {"nobody", Role::Admin}), std::invalid_argument);
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
