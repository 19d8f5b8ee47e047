#include <gateway/gateway.hpp>

#include <stdexcept>
#include <thread>

#include <boost/asio/ip/host_name.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <vu/log.hpp>
#include <vu/threadpool.hpp>

#include "callrecord.hpp"
#include "server.hpp"
#include "upload.hpp"

namespace Tarvik
{

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace
{

/// Looks at the certificate's files this often.
constexpr std::chrono::seconds lookInterval(2);

std::shared_ptr<Certificate> loadCertificate(const Gateway::Options& options)
{
  if (options.tlsCertificate.empty() != options.tlsKey.empty())
    throw std::runtime_error("TLS needs both a certificate and a key");
  if (options.tlsCertificate.empty())
    return nullptr;
  return std::make_shared<Certificate>(
      options.tlsCertificate, options.tlsKey, options.certificateTaken ? options.certificateTaken : [](const std::string&) {});
}

/// An address of version six stands in brackets before its port.
std::string asInUrl(const std::string& host) { return host.find(':') == std::string::npos ? host : "[" + host + "]"; }

/// How clients on this machine name a listener, best by a name that its
/// certificate is good for. "Every address" is none that a client could name.
std::string hostName(const asio::ip::address& address, const Certificate* certificate)
{
  const auto loopback = address.is_v6() ? "::1" : "127.0.0.1";
  auto name = address.is_unspecified() ? loopback : address.to_string();
  if (certificate)
  {
    std::vector<std::string> names{name};
    if (address.is_unspecified() || address.is_loopback())
      names.emplace_back("localhost");
    if (!address.is_loopback())
      names.push_back(asio::ip::host_name());
    name = certificate->findName(names).value_or(name);
  }
  return asInUrl(name);
}

} // namespace

struct Gateway::Implementation
{
  explicit Implementation(Options options) : acceptor(*io), deadline(*io), pause(*io), ticking(*io)
  {
    server->options = std::move(options);
    server->refusals = std::make_shared<RefusalLog>();
    server->sessions = std::make_shared<Sessions>(server->options.access);
  }

  void accept()
  {
    acceptor.async_accept(
        [this](error_code error, tcp::socket socket)
        {
          if (*server->stopped)
            return;
          if (error)
          {
            // Out of files, most likely: what is open must end first.
            if (error == asio::error::no_descriptors)
              server->endOne();
            vu::log::warning("gateway", "accept", error.message());
            pause.expires_after(std::chrono::milliseconds(100));
            pause.async_wait(
                [this](error_code cancelled)
                {
                  if (!cancelled)
                    accept();
                });
            return;
          }
          serveHttp(server, io, std::move(socket));
          accept();
        });
  }

  /// Ends what has a time to end; by the second, since the clock may be set.
  void tick()
  {
    ticking.expires_after(std::chrono::seconds(1));
    ticking.async_wait(
        [this](error_code error)
        {
          if (error || *server->stopped)
            return;
          tick();
          server->options.access->expire();
          server->sessions->expire();
          server->refusals->tell();
          if (server->certificate && std::chrono::steady_clock::now() - looked >= lookInterval)
          {
            looked = std::chrono::steady_clock::now();
            server->broker->pool()->post([certificate = server->certificate] { certificate->look(); });
          }
        });
  }

  void run()
  {
    for (;;)
      try
      {
        io->run();
        return;
      }
      catch (...)
      {
        vu::log::error("gateway", __func__, "a connection's handler failed: " + vu::errorText(std::current_exception()));
      }
  }

  void shutdown()
  {
    error_code ignored;
    acceptor.close(ignored);
    pause.cancel();
    ticking.cancel();
    deadline.expires_after(server->options.limits.close);
    deadline.async_wait(
        [this](error_code error)
        {
          if (!error)
            server->each(&Connection::abort);
        });
    server->connectionEnded = [this]
    {
      if (server->connections.empty())
        deadline.cancel();
    };
    server->each(&Connection::shutdown);
    if (server->connections.empty())
      deadline.cancel();
  }

  const std::shared_ptr<asio::io_context> io = std::make_shared<asio::io_context>(1);
  const std::shared_ptr<Server> server = std::make_shared<Server>();
  tcp::acceptor acceptor;
  asio::steady_timer deadline;
  asio::steady_timer pause;
  asio::steady_timer ticking;
  std::chrono::steady_clock::time_point looked{}; ///< at the certificate's files
  vu::SignalLink removedLink = vu::SignalBase::invalidSignalLink;
  std::thread thread;
};

Gateway::Gateway(Options options) : _implementation(std::make_unique<Implementation>(std::move(options))) {}

Gateway::~Gateway() { stop(); }

std::string Gateway::listen()
{
  const auto& server = _implementation->server;
  auto& acceptor = _implementation->acceptor;
  const auto& options = server->options;
  const auto where = asInUrl(options.address) + ":" + std::to_string(options.port);
  error_code error;
  const auto address = asio::ip::make_address(options.address, error);
  if (error)
    throw std::runtime_error("cannot listen on " + where + ": '" + options.address + "' is no IP address");
  server->certificate = loadCertificate(options);
  if (options.upload)
    Upload::removeLeftOvers(options.uploadDirectory);
  if (!address.is_loopback() && !server->certificate && !options.insecure)
    throw std::runtime_error("cannot listen on " + where +
                             " without TLS, since tokens could be read on their way: give --tls-cert and --tls-key, or --insecure");
  const tcp::endpoint endpoint(address, options.port);
  acceptor.open(endpoint.protocol(), error);
  if (!error)
    acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error)
    acceptor.bind(endpoint, error);
  if (!error)
    acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error)
    throw std::runtime_error("cannot listen on " + where + ": " + error.message());
  return (server->certificate ? "https://" : "http://") + hostName(address, server->certificate.get()) + ":" +
         std::to_string(acceptor.local_endpoint().port());
}

void Gateway::start(std::shared_ptr<ZB::ZBBroker> broker)
{
  auto& implementation = *_implementation;
  if (!implementation.acceptor.is_open() || implementation.thread.joinable())
    throw std::logic_error("a gateway starts once, after it has begun to listen");
  auto& server = *implementation.server;
  server.calls = std::make_shared<const ZB::CallGate>(broker->session(), recordCalls(server.metrics, server.refusals));
  server.backlog = std::make_shared<Backlog>(server.options.limits.unsentBytesInAll);
  server.dispatcher.emplace(broker, server.calls, server.options.limits.unsentBytes, server.refusals, server.sessions);
  server.broker = std::move(broker);
  // What was let in before the removal entered its connection on the gateway's
  // thread before this is posted there.
  implementation.removedLink = server.options.access->removed.connect(
      [io = implementation.io, weak = std::weak_ptr(implementation.server)](std::uint64_t number, const std::string& reason)
      {
        asio::post(*io,
                   [weak, number, reason]
                   {
                     if (const auto server = weak.lock())
                       server->each(&Connection::revoke, number, reason);
                   });
      });
  implementation.accept();
  implementation.tick();
  implementation.thread = std::thread([&implementation] { implementation.run(); });
}

void Gateway::post(std::function<void()> task) { asio::post(*_implementation->io, std::move(task)); }

void Gateway::beginStopping()
{
  auto& implementation = *_implementation;
  if (implementation.server->stopped->exchange(true))
    return;
  implementation.server->options.access->removed.disconnect(implementation.removedLink);
  if (implementation.thread.joinable())
    asio::post(*implementation.io, [&implementation] { implementation.shutdown(); });
}

void Gateway::stop()
{
  beginStopping();
  auto& implementation = *_implementation;
  if (!implementation.thread.joinable())
  {
    error_code ignored;
    implementation.acceptor.close(ignored);
    return;
  }
  implementation.thread.join();
  implementation.server->connectionEnded = {};
  implementation.server->connections.clear();
  implementation.server->dispatcher.reset();
  implementation.server->calls.reset();
  implementation.server->broker.reset();
}

} // namespace Tarvik
