#include "assets.hpp"

#include <gmock/gmock.h>

#include "fixture.hpp"

namespace
{

using namespace GatewayTest;

using LivePage = GatewayFixture;

TEST_F(LivePage, EveryFileThatThePageRefersToIsServedWithItsType)
{
  begin();
  const std::pair<const char*, const char*> files[] = {
      {"/", "text/html"}, {"/assets/page.css", "text/css"}, {"/assets/main.js", "text/javascript"}, {"/assets/icon.svg", "image/svg+xml"}};
  for (const auto& [path, type] : files)
  {
    SCOPED_TRACE(path);
    const auto answer = get(path, {}, "observer-token");
    EXPECT_EQ(answer.status, 200U);
    EXPECT_TRUE(answer.header[http::field::content_type].starts_with(type));
    EXPECT_THAT(std::string(answer.header["Content-Security-Policy"]), testing::HasSubstr("script-src 'self';"));
  }
  // What a script imports is a file, too.
  for (const auto& asset : Tarvik::assets())
    for (auto at = asset.content.find("\"./"); at != std::string_view::npos; at = asset.content.find("\"./", at + 1))
    {
      const auto name = asset.content.substr(at + 3, asset.content.find('"', at + 1) - at - 3);
      EXPECT_TRUE(Tarvik::findAsset("/assets/" + std::string(name))) << asset.name << " imports " << name;
    }
  for (const auto* const path : {"/assets", "/assets/", "/assets/nothing.js", "/assets/../main.js"})
    EXPECT_EQ(get(path).status, 404U) << path;
}

TEST_F(LivePage, WhoamiTellsTheHoldersNameAndRole)
{
  begin();
  const auto identity = rpc(call("session.whoami"), "observer-token").at("result");
  EXPECT_EQ(identity.at("name"), "screen");
  EXPECT_EQ(identity.at("role"), "observer");
  EXPECT_EQ(identity.at("version"), TARVIK_VERSION);
  EXPECT_GT(identity.at("time"), 1'700'000'000'000);
}

} // namespace
