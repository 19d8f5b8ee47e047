#include "fixture.hpp"

#include <cstdio>
#include <future>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

using namespace GatewayTest;

namespace
{

/// A certificate for 127.0.0.1 that vouches for itself, and its key, in files.
class SelfSigned
{
public:
  SelfSigned()
  {
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> pair(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, void (*)(X509*)> made(X509_new(), X509_free);
    X509_set_version(made.get(), 2);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), 3600);
    X509_set_pubkey(made.get(), pair.get());
    auto* const name = X509_get_subject_name(made.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1, -1, 0);
    X509_set_issuer_name(made.get(), name);
    const std::unique_ptr<X509_EXTENSION, void (*)(X509_EXTENSION*)> alternative(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1"), X509_EXTENSION_free);
    X509_add_ext(made.get(), alternative.get(), -1);
    X509_sign(made.get(), pair.get(), EVP_sha256());
    write(certificate, [&made](FILE* file) { return PEM_write_X509(file, made.get()); });
    write(key, [&pair](FILE* file) { return PEM_write_PrivateKey(file, pair.get(), nullptr, nullptr, 0, nullptr, nullptr); });
  }
  ~SelfSigned()
  {
    ::unlink(certificate.c_str());
    ::unlink(key.c_str());
  }

  const std::string base = testing::TempDir() + "tarvik-tls-" + std::to_string(::getpid());
  const std::string certificate = base + ".cert.pem";
  const std::string key = base + ".key.pem";

private:
  template <typename F> static void write(const std::string& name, F content)
  {
    FILE* const file = std::fopen(name.c_str(), "w");
    if (!file || content(file) != 1)
      throw std::runtime_error("cannot write " + name);
    std::fclose(file);
  }
};

} // namespace

class Tls : public GatewayFixture
{
protected:
  void SetUp() override
  {
    options.address = "127.0.0.1";
    options.tlsCertificate = files.certificate;
    options.tlsKey = files.key;
    begin();
  }

  const SelfSigned files;
};

TEST_F(Tls, SessionThatTrustsTheAuthorityWorksAsWithout)
{
  ASSERT_EQ(url.rfind("https://127.0.0.1:", 0), 0u);
  auto trusting = remote();
  trusting.certificateAuthority = files.certificate;
  vu::RemoteSession session(trusting);
  const auto object = session.service("Bench").value();
  EXPECT_EQ(object.call<int>("add", 2, 3), 5);
  std::promise<int> seen;
  object.connect<int>("happened", [&seen](int number) { seen.set_value(number); }).value();
  object.call<void>("emit", 7);
  auto number = seen.get_future();
  ASSERT_EQ(number.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(number.get(), 7);
  gateway->stop();
  EXPECT_THROW(object.call<int>("add", 2, 3), vu::ServiceError);
}

TEST_F(Tls, ClientThatDoesNotTrustTheCertificateOrSpeaksNoTlsGetsNothing)
{
  try
  {
    vu::RemoteSession session(remote());
    ADD_FAILURE() << "trusted";
  }
  catch (const vu::ServiceError& error)
  {
    EXPECT_EQ(error.kind(), vu::ServiceError::Kind::ConnectionLost);
    EXPECT_NE(error.description().find("certificate"), std::string::npos) << error.what();
  }
  EXPECT_THROW(get("/healthz"), boost::system::system_error);
}
