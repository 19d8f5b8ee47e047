#include "fixture.hpp"

#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/http.hpp>

#include <testing/files.hpp>
#include <testing/process.hpp>
#include <vu/log.hpp>

using namespace GatewayTest;

class Tls : public GatewayFixture
{
protected:
  /// Makes a certificate that vouches for itself and for `subject`, with its key.
  void certify(const std::string& subject, const std::string& days = "90") const
  {
    TestSupport::Process openssl({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                                  "-days", days, "-subj", "/CN=test", "-addext", "subjectAltName=" + subject, "-out",
                                  (directory / "host.cert").string(), "-keyout", (directory / "host.key").string()});
    ASSERT_EQ(openssl.waitForEnd(), 0) << openssl.error();
  }
  void certifyAndBegin(const std::string& subject, const std::string& days = "90")
  {
    certify(subject, days);
    options.tlsCertificate = (directory / "host.cert").string();
    options.tlsKey = (directory / "host.key").string();
    begin();
    trusting = remote();
    trusting.certificateAuthority = options.tlsCertificate;
  }
  /// What the openssl client says of the host.
  std::string look(std::vector<std::string> more)
  {
    std::vector<std::string> command{"/usr/bin/openssl", "s_client", "-connect", "127.0.0.1:" + port};
    command.insert(command.end(), more.begin(), more.end());
    TestSupport::Process client(command);
    client.waitForEnd();
    return client.output() + client.error();
  }

  const TestSupport::TemporaryDirectory directory;
  vu::RemoteSession::Options trusting;
};

TEST_F(Tls, OnlyAClientThatTrustsTheCertificateGetsAnything)
{
  certifyAndBegin("IP:127.0.0.1");
  ASSERT_EQ(url.rfind("https://127.0.0.1:", 0), 0u);
  const auto error = serviceErrorOf([this] { vu::RemoteSession session(remote()); });
  EXPECT_EQ(error.kind(), Kind::ConnectionLost);
  EXPECT_NE(error.description().find("certificate"), std::string::npos) << error.what();
  EXPECT_THROW(get("/healthz"), boost::system::system_error) << "nobody speaks plainly here";
  vu::RemoteSession session(trusting);
  const auto object = session.service("Bench").value();
  EXPECT_EQ(object.call<int>("add", 2, 3), 5);
  gateway->stop();
  EXPECT_THROW(object.call<int>("add", 2, 3), vu::ServiceError);
}

TEST_F(Tls, HostIsCheckedByTheNameItIsCalledAndASilentClientIsCutOff)
{
  options.limits.header = std::chrono::milliseconds(500);
  certifyAndBegin("DNS:localhost");
  EXPECT_EQ(url, "https://localhost:" + port) << "as the certificate names it";
  trusting.url = "https://127.0.0.1:" + port;
  EXPECT_EQ(serviceErrorOf([this] { vu::RemoteSession session(trusting); }).kind(), Kind::ConnectionLost) << "no name of 127.0.0.1";
  trusting.url = url;
  EXPECT_EQ(vu::RemoteSession(trusting).service("Bench").value().call<int>("add", 2, 3), 5);
  auto silent = connect();
  EXPECT_THROW(receive(silent), boost::system::system_error);
}

TEST_F(Tls, OldProtocolsAndCiphersAreRefusedAndBrowsersToldToStay)
{
  certifyAndBegin("IP:127.0.0.1");
  EXPECT_NE(look({"-tls1_2", "-cipher", "ECDHE-ECDSA-AES128-GCM-SHA256"}).find("Cipher    : ECDHE-ECDSA-AES128-GCM-SHA256"),
            std::string::npos);
  EXPECT_NE(look({"-tls1_3"}).find("TLSv1.3, Cipher is TLS_"), std::string::npos);
  for (const auto& refused :
       {std::vector<std::string>{"-tls1_1", "-cipher", "ALL:@SECLEVEL=0"}, {"-tls1_2", "-cipher", "ECDHE-ECDSA-AES128-SHA256"}})
    EXPECT_NE(look(refused).find("Cipher is (NONE)"), std::string::npos) << refused.back();
  asio::ssl::context context(asio::ssl::context::tls_client);
  asio::ssl::stream<asio::ip::tcp::socket> stream(connect(), context);
  stream.handshake(asio::ssl::stream_base::client);
  asio::write(stream, asio::buffer(request("GET /Bench/")));
  beast::flat_buffer buffer;
  http::response<http::string_body> response;
  http::read(stream, buffer, response);
  EXPECT_EQ(response["Strict-Transport-Security"], "max-age=31536000");
  response = {};
  asio::write(stream, asio::buffer(request("GET /?token=admin-token", {}, {}, "")));
  http::read(stream, buffer, response);
  EXPECT_TRUE(response["Set-Cookie"].ends_with("; Secure")) << response["Set-Cookie"];
}

TEST_F(Tls, VeryCertificateThatIsServedIsTakenUpAnewABadOneIsNotAndItsEndIsToldBefore)
{
  const vu::log::Capture log;
  TestSupport::Journal taken;
  options.certificateTaken = [&taken](const std::string& pem) { taken.add(pem); };
  certifyAndBegin("DNS:robot.example", "20");
  EXPECT_EQ(log.count(vu::log::Level::Warning, "host.cert expires in "), 1U);
  auto knowing = remote();
  knowing.hostCertificate = (directory / "known.cert").string(); // whatever names it has
  const auto know = [&] { TestSupport::writeFile(knowing.hostCertificate, TestSupport::readFile(options.tlsCertificate)); };
  know();
  EXPECT_TRUE(vu::RemoteSession(knowing).isConnected());

  TestSupport::writeFile(options.tlsCertificate, "nonsense");
  EXPECT_TRUE(eventually([&] { return log.count(vu::log::Level::Error, "host.cert cannot be used") == 1; }));
  EXPECT_TRUE(vu::RemoteSession(knowing).isConnected()) << "the former one is served";

  certify("DNS:robot.example");
  EXPECT_TRUE(taken.waitFor(TestSupport::readFile(options.tlsCertificate), patience));
  const auto refuses = [&] { return TestSupport::errorOf([&] { vu::RemoteSession session(knowing); }) != "no error"; };
  EXPECT_TRUE(eventually(refuses)) << "it is another one";
  know();
  EXPECT_FALSE(refuses());
  EXPECT_EQ(log.count(vu::log::Level::Warning, "expires in"), 1U);
}

TEST_F(Tls, KeyThatIsEncryptedIsRefusedWithoutAskingAnybody)
{
  certify("IP:127.0.0.1");
  const auto key = (directory / "encrypted.key").string();
  TestSupport::Process openssl(
      {"/usr/bin/openssl", "pkey", "-in", (directory / "host.key").string(), "-aes256", "-passout", "pass:secret", "-out", key});
  ASSERT_EQ(openssl.waitForEnd(), 0) << openssl.error();
  Tarvik::Gateway::Options wanted;
  wanted.port = 0;
  wanted.tlsCertificate = (directory / "host.cert").string();
  wanted.tlsKey = key;
  const auto text = TestSupport::errorOf([&] { Tarvik::Gateway(wanted).listen(); });
  EXPECT_NE(text.find(key + " cannot be used: it is encrypted"), std::string::npos) << text;
}
