#include <gateway/gateway.hpp>

#include <stdexcept>
#include <thread>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <vu/log.hpp>

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

std::unique_ptr<asio::ssl::context> loadTls(const Gateway::Options& options)
{
  if (options.tlsCertificate.empty() != options.tlsKey.empty())
    throw std::runtime_error("TLS needs both a certificate and a key");
  if (options.tlsCertificate.empty())
    return nullptr;
  auto context = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
  context->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 | asio::ssl::context::no_sslv3 |
                       asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
  error_code error;
  context->use_certificate_chain_file(options.tlsCertificate, error);
  if (error)
    throw std::runtime_error("the certificate " + options.tlsCertificate + " cannot be used: " + error.message());
  context->use_private_key_file(options.tlsKey, asio::ssl::context::pem, error);
  if (error)
    throw std::runtime_error("the key " + options.tlsKey + " cannot be used: " + error.message());
  return context;
}

} // namespace

struct Gateway::Implementation
{
  explicit Implementation(Options options) : acceptor(*io), deadline(*io), pause(*io)
  {
    server->options = std::move(options);
    // Calls that are under way outlive the gateway, and may be refused.
    server->refusals = std::make_shared<RefusalLog>(
        [io = std::weak_ptr(io), server = std::weak_ptr(server), second = std::weak_ptr(second)]
        {
          if (const auto context = io.lock())
            asio::post(*context, [server, second] { tellRefusals(server, second); });
        });
  }

  static void tellRefusals(const std::weak_ptr<Server>& weakServer, const std::weak_ptr<asio::steady_timer>& weakSecond)
  {
    const auto server = weakServer.lock();
    const auto second = weakSecond.lock();
    if (!server || !second || *server->stopped)
      return;
    second->expires_after(std::chrono::seconds(1));
    second->async_wait(
        [weakServer](error_code error)
        {
          if (const auto alive = weakServer.lock(); alive && !error)
            alive->refusals->tell();
        });
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
    second->cancel();
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
  /// Until what the log leaves out is told.
  const std::shared_ptr<asio::steady_timer> second = std::make_shared<asio::steady_timer>(*io);
  tcp::acceptor acceptor;
  asio::steady_timer deadline;
  asio::steady_timer pause;
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
  const auto where =
      (options.address.find(':') == std::string::npos ? options.address : "[" + options.address + "]") + ":" + std::to_string(options.port);
  error_code error;
  const auto address = asio::ip::make_address(options.address, error);
  if (error)
    throw std::runtime_error("cannot listen on " + where + ": '" + options.address + "' is no IP address");
  server->tls = loadTls(options);
  if (options.upload)
    Upload::removeLeftOvers(options.uploadDirectory);
  if (!address.is_loopback() && !server->tls && !options.insecure)
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
  // "Every address" is none that a client could name.
  auto host = where.substr(0, where.rfind(':'));
  if (address.is_unspecified())
    host = address.is_v6() ? "[::1]" : "127.0.0.1";
  return (server->tls ? "https://" : "http://") + host + ":" + std::to_string(acceptor.local_endpoint().port());
}

void Gateway::start(std::shared_ptr<ZB::ZBBroker> broker)
{
  auto& implementation = *_implementation;
  if (!implementation.acceptor.is_open() || implementation.thread.joinable())
    throw std::logic_error("a gateway starts once, after it has begun to listen");
  auto& server = *implementation.server;
  server.calls = std::make_shared<const ZB::CallGate>(broker->session(), recordCalls(server.metrics, server.refusals));
  server.backlog = std::make_shared<Backlog>(server.options.limits.unsentBytesInAll);
  server.dispatcher.emplace(broker, server.calls, server.options.limits.unsentBytes, server.refusals);
  server.broker = std::move(broker);
  // What was let in before the removal entered its connection on the gateway's
  // thread before this is posted there.
  implementation.removedLink = server.options.access->removed.connect(
      [io = implementation.io, weak = std::weak_ptr(implementation.server)](std::uint64_t number)
      {
        asio::post(*io,
                   [weak, number]
                   {
                     if (const auto server = weak.lock())
                       server->each(&Connection::revoke, number);
                   });
      });
  implementation.accept();
  implementation.thread = std::thread([&implementation] { implementation.run(); });
}

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
