#include "fixture.hpp"

#include <testing/files.hpp>
#include <testing/process.hpp>

using namespace GatewayTest;

class Tls : public GatewayFixture
{
protected:
  /// With a certificate that vouches for itself and for `subject`.
  void certifyAndBegin(const std::string& subject)
  {
    options.tlsCertificate = (directory / "host.cert").string();
    options.tlsKey = (directory / "host.key").string();
    TestSupport::Process openssl({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                                  "-days", "1", "-subj", "/CN=test", "-addext", "subjectAltName=" + subject, "-out", options.tlsCertificate,
                                  "-keyout", options.tlsKey});
    ASSERT_EQ(openssl.waitForEnd(), 0) << openssl.error();
    begin();
    trusting = remote();
    trusting.certificateAuthority = options.tlsCertificate;
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
  EXPECT_EQ(serviceErrorOf([this] { vu::RemoteSession session(trusting); }).kind(), Kind::ConnectionLost) << "no name of 127.0.0.1";
  trusting.url = "https://localhost:" + port;
  EXPECT_EQ(vu::RemoteSession(trusting).service("Bench").value().call<int>("add", 2, 3), 5);
  auto silent = connect();
  EXPECT_THROW(receive(silent), boost::system::system_error);
}
