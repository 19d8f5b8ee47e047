#include "fixture.hpp"

#include <filesystem>

#include <testing/files.hpp>
#include <vu/log.hpp>

using namespace GatewayTest;
using TestSupport::namesIn;
namespace fs = std::filesystem;

namespace
{

class Uploads : public GatewayFixture
{
protected:
  Uploads()
  {
    TestSupport::writeFile(directory / "upload-left-over", "x");
    options.uploadDirectory = directory;
    options.limits.uploadBytes = 1000000;
    options.limits.messageBytes = 1000;
    options.upload = [this](ZB::ZBBroker&, const fs::path& file, const std::string& sender) -> vu::Value
    {
      taken = TestSupport::readFile(file);
      if (taken == "bad")
        throw vu::ServiceError("Taker", "take", "this is bad", vu::ServiceError::Kind::InvalidArguments);
      if (taken == "full")
        throw std::runtime_error("no space left");
      return {{"from", sender}, {"as", vu::currentCaller()}};
    };
    begin();
  }

  std::string upload(const std::string& body, Fields fields = {}, const std::string& bearer = token) const
  {
    return request("POST /packages", std::move(fields), body, bearer);
  }

  const TestSupport::TemporaryDirectory directory;
  std::string taken;
};

TEST_F(Uploads, FileArrivesAsItWasSentAndGoesAfterwards)
{
  EXPECT_TRUE(namesIn(directory).empty()) << "what an earlier run has left is gone";
  std::string large;
  for (int i = 0; large.size() < 900000; ++i)
    large += std::to_string(i);
  large.resize(900000);
  std::string chunks;
  for (std::size_t i = 0; i < large.size(); i += 0x15f90) // 90000
    chunks += "15f90\r\n" + large.substr(i, 0x15f90) + "\r\n";
  for (const auto& whole : {upload(large), upload("", {{"Transfer-Encoding", "chunked"}}) + chunks + "0\r\n\r\n"})
  {
    taken.clear();
    const auto answer = raw(whole);
    EXPECT_EQ(answer.status, 201U) << answer.body;
    EXPECT_EQ(vu::Value::parse(answer.body), (vu::Value{{"from", "local"}, {"as", "local"}}));
    EXPECT_TRUE(taken == large);
  }
  auto socket = connect();
  asio::write(socket, asio::buffer(upload("", {{"Content-Length", "3"}, {"Expect", "100-continue"}})));
  EXPECT_EQ(receive(socket).status, 100U);
  asio::write(socket, asio::buffer("zip", 3));
  EXPECT_EQ(receive(socket).status, 201U);
  EXPECT_EQ(taken, "zip");
  gateway->stop();
  bench = nullptr; // goes with the broker, which waits for what is under way
  broker->shutdown();
  EXPECT_TRUE(namesIn(directory).empty());
}

TEST_F(Uploads, RefusalTellsWhyAndLeavesNothing)
{
  vu::log::Capture log;
  const struct
  {
    std::string request;
    unsigned status;
    const char* text;
  } cases[] = {
      {upload("zip", {}, "wrong"), 401, "token"},
      {upload("zip", {}, "observer-token"), 403, "observer"},
      {upload("zip", {}, "operator-token"), 403, "operator"},
      {upload("zip", {{"Sec-Fetch-Site", "same-site"}}), 403, "another site"},
      {upload("", {{"Content-Length", "1000001"}}), 413, "1000000"},
      {upload("", {{"Transfer-Encoding", "chunked"}}) + "f4241\r\n" + std::string(1000001, 'x'), 413, "1000000"},
      {upload("bad"), 400, "this is bad"},
      {upload("full"), 500, "no space left"},
      {request("GET /packages"), 405, "POST"},
  };
  for (const auto& [text, status, reason] : cases)
  {
    SCOPED_TRACE(text.substr(0, 200));
    const auto answer = raw(text);
    EXPECT_EQ(answer.status, status);
    EXPECT_NE(answer.body.find(reason), std::string::npos) << answer.body;
  }
  EXPECT_EQ(log.count(vu::log::Level::Info, "POST /packages from 127.0.0.1"), 4U) << "two roles, two that were refused";
  {
    auto gone = connect();
    asio::write(gone, asio::buffer(upload("", {{"Content-Length", "500000"}}) + std::string(300000, 'x')));
    EXPECT_TRUE(eventually([this] { return !namesIn(directory).empty(); }));
  }
  EXPECT_TRUE(eventually([this] { return namesIn(directory).empty(); })) << "whoever goes away leaves nothing either";
}

} // namespace
