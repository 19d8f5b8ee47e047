#include <stdexcept>

#include <gtest/gtest.h>

#include <boost/beast/http/field.hpp>

#include <gateway/sessions.hpp>
#include <vu/error.hpp>

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
      [&](std::uint64_t number, const std::string&)
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

TEST(Access, TokenLetsInUntilItsEndAndTellsOnceThatItHasCome)
{
  Access access;
  const auto now = Access::Clock::now();
  std::vector<std::pair<std::uint64_t, std::string>> removed;
  access.removed.connect([&](std::uint64_t number, const std::string& why) { removed.emplace_back(number, why); });
  access.add("over", {"past", Role::Admin}, now - std::chrono::seconds(1));
  const auto lent = access.add("lent", {"guest", Role::Admin}, now + std::chrono::hours(1));
  access.add("kept", {"alice", Role::Admin});
  const auto under = *access.addUnder(lent, digestOf("half"), {"guest", Role::Admin});
  EXPECT_FALSE(access.identify("over"));
  EXPECT_TRUE(access.identify("half"));
  EXPECT_FALSE(access.lastUse(lent)) << "nobody has come with it";
  EXPECT_TRUE(access.identify("lent"));
  EXPECT_GE(access.lastUse(lent), now);
  access.expire(now);
  removed.clear();
  for (int i = 0; i < 2; ++i)
    access.expire(now + std::chrono::hours(1));
  EXPECT_EQ(removed,
            (std::vector<std::pair<std::uint64_t, std::string>>{{lent, "the token has expired"}, {under, "the token has expired"}}));
  access.remove(lent);
  EXPECT_FALSE(access.identify("half"));
  EXPECT_FALSE(access.addUnder(lent, digestOf("late"), {"guest", Role::Admin}));
}

TEST(Sessions, HalvesLetInForTheirTimeAndNoLongerThanTheirToken)
{
  const auto access = std::make_shared<Access>();
  const auto alice = access->add("alice-token", {"alice", Role::Admin});
  access->add("screen-token", {"screen", Role::Observer});
  auto now = Sessions::Clock::now();
  Sessions sessions(access, [&now] { return now; });
  std::vector<std::uint64_t> removed;
  access->removed.connect([&](std::uint64_t number, const std::string&) { removed.push_back(number); });

  const auto first = sessions.beginWithToken("alice-token").value();
  EXPECT_EQ(sessions.identify(first.cookie)->role, Role::Operator) << "at most";
  EXPECT_EQ(access->identify(first.secret)->role, Role::Admin);
  EXPECT_FALSE(sessions.identify(first.secret));
  EXPECT_FALSE(access->identify(first.cookie));
  EXPECT_EQ(sessions.identify(sessions.beginWithToken("screen-token")->cookie)->role, Role::Observer);
  for (const auto* const wrong : {"", "alice-toke", first.cookie.c_str(), first.secret.c_str()})
    EXPECT_FALSE(sessions.beginWithToken(wrong)) << wrong;
  EXPECT_THROW(sessions.makeCode(first.identity), vu::ServiceError) << "it would prolong itself";
  access->add("run-token", {"b for alice", Role::Operator, 0, ZB::everyRight()});
  EXPECT_FALSE(sessions.beginWithToken("run-token"));

  const auto holder = *access->identify("alice-token");
  const auto code = sessions.makeCode(holder);
  const auto late = sessions.makeCode(holder);
  EXPECT_TRUE(sessions.beginWithCode(code));
  EXPECT_FALSE(sessions.beginWithCode(code)) << "once";
  now += Sessions::codeLife;
  EXPECT_FALSE(sessions.beginWithCode(late));

  now += Sessions::life - Sessions::codeLife;
  EXPECT_FALSE(sessions.identify(first.cookie));
  sessions.expire();
  EXPECT_EQ(removed.size(), 3U);
  EXPECT_FALSE(access->identify(first.secret));

  const auto last = sessions.beginWithToken("screen-token").value();
  const auto oldest = sessions.beginWithToken("alice-token").value();
  std::vector<Sessions::Session> more;
  for (std::size_t i = 1; i < Sessions::mostPerToken; ++i)
    more.push_back(sessions.beginWithToken("alice-token").value());
  EXPECT_TRUE(access->identify(oldest.secret));
  more.push_back(sessions.beginWithToken("alice-token").value());
  EXPECT_FALSE(access->identify(oldest.secret) || sessions.identify(oldest.cookie));
  const auto unused = sessions.makeCode(holder);
  access->remove(alice);
  for (const auto& session : more)
    EXPECT_FALSE(access->identify(session.secret) || sessions.identify(session.cookie));
  EXPECT_FALSE(sessions.beginWithCode(unused));
  EXPECT_TRUE(access->identify(last.secret) && sessions.identify(last.cookie)) << "another token's";
}

TEST(Admission, LetsInWhoNamesThisHostAndPresentsATokenFromItsOwnPages)
{
  const auto tokens = std::make_shared<Access>();
  auto& access = *tokens;
  Sessions sessions(tokens);
  access.add("abc", {"alice", Role::Admin});
  access.add("xyz", {"bob", Role::Admin});
  const auto begun = sessions.beginWithToken("xyz")->cookie;
  const auto cookie = "tarvik_7110=" + begun;
  const auto cookies = "a=b; tarvik_7111=no; " + cookie + "; c=d";
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
      {{host, {"Authorization", "bearer abc"}, {"Cookie", cookie.c_str()}}, here, "alice"},
      {{host, {"Authorization", "Bearer no"}, {"Cookie", cookie.c_str()}}, here, "401"},
      {{host, {"Cookie", cookies.c_str()}}, here, "bob"},
      {{host, {"Cookie", cookie.c_str()}}, door("127.0.0.1", 80), "403"},
      {{host, {"Cookie", "tarvik_7110=xyz"}}, here, "401"},
      {{host, {"Authorization", "Basic abc"}}, here, "401"},
      {{host, {"Cookie", "xtarvik_7110=xyz; tarvik_7110"}}, here, "401"},
  };
  const auto outcome = [&](const std::string& line, const Fields& fields, const Door& at)
  {
    http::request_header<> header;
    header.method_string(line.substr(0, line.find(' ')));
    header.target(line.substr(line.find(' ') + 1));
    for (const auto& [name, value] : fields)
      header.insert(name, value);
    const auto admitted = admit(header, at, access, sessions);
    const auto* const answer = std::get_if<HttpAnswer>(&admitted);
    return std::holds_alternative<EntryForm>(admitted) ? "form"
           : answer                                    ? std::to_string(answer->status)
                                                       : std::get<Identity>(admitted).name;
  };
  for (std::size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(outcome("GET /", cases[i].fields, cases[i].door), cases[i].outcome) << "case " << i;

  const std::pair<const char*, const char*> own{"Cookie", cookie.c_str()};
  const std::pair<const char*, const char*> referrer{"Referer", "http://localhost:7110/Module/"};
  const std::pair<const char*, const char*> otherPort{"Referer", "http://localhost:71100/"};
  const std::pair<const char*, const char*> origin{"Origin", "http://localhost:7110"};
  const auto site = [](const char* text) { return std::pair{"Sec-Fetch-Site", text}; };
  const auto destination = [](const char* text) { return std::pair{"Sec-Fetch-Dest", text}; };
  const struct
  {
    const char* line;
    Fields fields;
    const char* outcome;
  } more[] = {
      // A cookie opens pages, and nothing else.
      {"GET /Module/", {own, site("same-site")}, "bob"},
      {"GET /rpc", {own}, "401"},
      {"POST /rpc", {own}, "401"},
      {"POST /packages", {own}, "401"},
      {"GET /rpc", {{"Sec-WebSocket-Protocol", "tarvik, tarvik.bearer.abc"}}, "alice"},
      // It evaluates for the host's own pages, which a link is not.
      {"GET /M/?eval=f", {own, site("same-origin"), {"Sec-Fetch-Mode", "cors"}}, "bob"},
      {"GET /M/?eval=f", {own, site("same-origin"), {"Sec-Fetch-Mode", "navigate"}}, "403"},
      {"GET /M/?eval=f", {own, site("same-origin"), destination("document")}, "403"},
      {"GET /M/?eval=f", {own, site("same-origin"), destination("iframe")}, "403"},
      {"GET /M/?eval=f", {own, site("same-site"), referrer}, "403"},
      {"GET /M/?eval=f", {own, site("none")}, "403"},
      {"GET /M/?eval=f", {own}, "403"},
      {"GET /M/?eval=f", {own, referrer}, "bob"},
      {"GET /M/?eval=f", {own, origin}, "bob"},
      {"GET /M/?eval=f", {own, otherPort}, "403"},
      {"GET /M/?eval=f", {bearer}, "alice"},
      // A session begins where a person asks for it.
      {"GET /?token=abc", {}, "200"},
      {"GET /?token=abc", {site("none")}, "200"},
      {"GET /?token=abc", {site("same-origin"), referrer}, "200"},
      {"GET /?token=abc", {site("cross-site")}, "403"},
      {"GET /?token=abc", {site("same-site")}, "403"},
      {"GET /?token=abc", {otherPort}, "403"},
      {"GET /?token=no", {}, "401"},
      {"GET /?code=no", {own}, "401"},
      {"GET //evil.example/?token=abc", {}, "401"},
      {"POST /", {origin}, "form"},
      {"POST /", {site("cross-site")}, "403"},
      {"POST /", {otherPort}, "403"},
      {"GET /?enter", {}, "200"},
  };
  for (auto [line, fields, expected] : more)
  {
    fields.push_back(host);
    std::string told;
    for (const auto& [name, value] : fields)
      told += std::string(" ") + name + ": " + value;
    EXPECT_EQ(outcome(line, fields, here), expected) << line << told;
  }
}
