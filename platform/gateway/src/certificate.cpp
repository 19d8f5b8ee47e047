#include "certificate.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <boost/asio/ip/address.hpp>

#include <vu/log.hpp>

namespace Tarvik
{

namespace asio = boost::asio;
using boost::system::error_code;

namespace
{

constexpr int warningDays = 30;
constexpr std::chrono::hours warningInterval(24);

X509* certificateOf(const Certificate::Context& context) { return ::SSL_CTX_get0_certificate(context->native_handle()); }

std::string toPem(X509* certificate)
{
  const std::unique_ptr<BIO, decltype(&::BIO_free)> memory(::BIO_new(::BIO_s_mem()), &::BIO_free);
  ::PEM_write_bio_X509(memory.get(), certificate);
  char* text = nullptr;
  const auto length = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

} // namespace

Certificate::Certificate(std::string certificateFile, std::string keyFile, Taken taken)
    : _certificateFile(std::move(certificateFile)), _keyFile(std::move(keyFile)), _taken(std::move(taken)), _seen(state()), _tried(_seen)
{
  _context = load();
  _taken(toPem(certificateOf(_context)));
  warn(_context);
}

Certificate::Context Certificate::context() const
{
  const std::lock_guard lock(_mutex);
  return _context;
}

Certificate::Context Certificate::load() const
{
  auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_server);
  ::SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
  // Of TLS 1.2 what is authenticated as it is encrypted, with a key that
  // nobody can find out later; TLS 1.3 has nothing else.
  ::SSL_CTX_set_cipher_list(context->native_handle(), "ECDHE+AESGCM:ECDHE+CHACHA20");
  const auto encrypted = std::make_shared<bool>(false);
  context->set_password_callback(
      [encrypted](std::size_t, asio::ssl::context::password_purpose)
      {
        *encrypted = true; // nobody is asked on a terminal
        return std::string();
      });
  error_code error;
  context->use_certificate_chain_file(_certificateFile, error);
  if (error)
    throw std::runtime_error("the certificate " + _certificateFile + " cannot be used: " + error.message());
  context->use_private_key_file(_keyFile, asio::ssl::context::pem, error);
  if (error && *encrypted)
    throw std::runtime_error("the key " + _keyFile +
                             " cannot be used: it is encrypted, and nobody is asked for its passphrase; give a key " +
                             "without one, which only the host's user can read");
  if (error)
    throw std::runtime_error("the key " + _keyFile + " cannot be used: " + error.message());
  return context;
}

Certificate::State Certificate::state() const
{
  State state{};
  auto next = state.begin();
  for (const auto* const file : {&_certificateFile, &_keyFile})
  {
    struct stat status
    {
    };
    ::stat(file->c_str(), &status);
    for (const std::uint64_t part : {static_cast<std::uint64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
                                     static_cast<std::uint64_t>(status.st_mtim.tv_sec), static_cast<std::uint64_t>(status.st_mtim.tv_nsec),
                                     static_cast<std::uint64_t>(status.st_size)})
      *next++ = part;
  }
  return state;
}

std::optional<std::string> Certificate::findName(const std::vector<std::string>& candidates) const
{
  const auto current = context();
  const auto fits = [certificate = certificateOf(current)](const std::string& name)
  {
    error_code noAddress;
    asio::ip::make_address(name, noAddress);
    return noAddress ? ::X509_check_host(certificate, name.c_str(), name.size(), 0, nullptr) == 1
                     : ::X509_check_ip_asc(certificate, name.c_str(), 0) == 1;
  };
  const auto found = std::find_if(candidates.begin(), candidates.end(), fits);
  return found == candidates.end() ? std::nullopt : std::optional(*found);
}

void Certificate::look()
{
  const std::lock_guard lock(_looking);
  const auto now = state();
  // A certificate and its key do not change at the same moment.
  if (std::exchange(_seen, now) == now && now != _tried)
  {
    _tried = now;
    try
    {
      const auto fresh = load();
      _taken(toPem(certificateOf(fresh)));
      {
        const std::lock_guard guard(_mutex);
        _context = fresh;
      }
      vu::log::info("gateway", "tls", "the certificate " + _certificateFile + " is taken up anew");
      return warn(fresh);
    }
    catch (const std::exception& error)
    {
      vu::log::error("gateway", "tls", std::string(error.what()) + "; the former one is served");
    }
  }
  if (Clock::now() - _warned >= warningInterval)
    warn(context());
}

void Certificate::warn(const Context& context)
{
  _warned = Clock::now();
  int days = 0;
  int seconds = 0;
  if (::ASN1_TIME_diff(&days, &seconds, nullptr, ::X509_get0_notAfter(certificateOf(context))) != 1)
    return;
  if (days < 0 || seconds < 0)
    vu::log::warning("gateway", "tls",
                     "the certificate " + _certificateFile + " has expired " + std::to_string(-days) +
                         " days ago, and clients refuse it: renew it");
  else if (days < warningDays)
    vu::log::warning("gateway", "tls", "the certificate " + _certificateFile + " expires in " + std::to_string(days) + " days: renew it");
}

} // namespace Tarvik
