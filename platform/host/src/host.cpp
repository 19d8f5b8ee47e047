#include <host/host.hpp>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <tuple>

#include <packages/manifest.hpp>
#include <root/root.hpp>
#include <vu/objectbuilder.hpp>
#include <zb/zbmemoryproxy.hpp>
#include <zb/zbproxy.hpp>

#include "behaviormetrics.hpp"
#include "rundirectory.hpp"
#include "tokens.hpp"

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

/// As the build lists them; each may use those before it.
constexpr const char* platformModules[] = {TARVIK_MODULE_NAMES};

std::pair<std::string, std::uint16_t> parseListen(const std::string& text)
{
  const auto colon = text.rfind(':');
  const auto fail = [&text]
  { return std::runtime_error("'" + text + "' is no place to listen: write it as ADDRESS:PORT, 127.0.0.1:7110 or [::1]:7110"); };
  if (colon == std::string::npos || colon == 0)
    throw fail();
  auto address = text.substr(0, colon);
  if (address.front() == '[' && address.back() == ']')
    address = address.substr(1, address.size() - 2);
  else if (address.find(':') != std::string::npos)
    throw fail();
  if (address == "localhost")
    address = "127.0.0.1";
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  if (const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, port); error != std::errc() || rest != end)
    throw fail();
  return {address, port};
}

fs::path findModules()
{
  const auto here = fs::read_symlink("/proc/self/exe").parent_path();
  for (const auto* const candidate : {"../modules", TARVIK_MODULES_FROM_EXECUTABLE})
    if (const auto directory = (here / candidate).lexically_normal(); fs::is_directory(directory))
      return directory;
  throw std::runtime_error("the platform's modules are not beside " + here.string() + ": give --module-directory");
}

/// The running behaviors, by their names "UUID/PATH".
std::vector<std::string> runningBehaviors(ZB::ZBBroker& broker)
{
  const auto manager = broker.getProxy("ZBBehaviorManager");
  return manager ? manager->call<std::vector<std::string>>("getRunningBehaviors") : std::vector<std::string>();
}

/// What came of an installation: the version that was replaced, or null, and
/// what of it ran, which that has stopped; what the package may call, and the
/// faults of its projects.
vu::Value installed(const vu::PackageInfo& package, const std::vector<vu::PackageInfo>& before, std::vector<std::string> running)
{
  vu::Value replaced;
  for (const auto& other : before)
    if (other.uuid() == package.uuid())
      replaced = other.version();
  std::erase_if(running, [prefix = package.uuid() + "/"](const std::string& name) { return !name.starts_with(prefix); });
  return {{"uuid", package.uuid()},
          {"replaced", replaced},
          {"stopped", running},
          {"may", package.may()},
          {"faults", packages::toValue(packages::projectFaults(package.path(), package))}};
}

/// Installs a package that a client has sent. The package manager does not
/// tell a bad package from a disk that fails: its check does.
vu::Value installUpload(ZB::ZBBroker& broker, const fs::path& file, const std::string& sender)
{
  const ZB::ZBProxy packages(broker.shared_from_this(), "PackageManager");
  const auto named = [&file](const ZB::ZBError& error, vu::ServiceError::Kind kind)
  {
    auto text = error.description();
    if (const auto path = "\"" + file.string() + "\""; text.starts_with(path))
      text.replace(0, path.size(), "the package");
    return vu::ServiceError(error.module(), error.method(), text, kind);
  };
  try
  {
    const auto before = packages.call<std::vector<vu::PackageInfo>>("packages");
    auto running = runningBehaviors(broker);
    const auto uuid = packages.call<std::string>("install", file.string(), sender);
    return installed(packages.call<vu::PackageInfo>("package", uuid), before, std::move(running));
  }
  catch (const ZB::ZBError& failure)
  {
    if (failure.kind() != vu::ServiceError::Kind::Service)
      throw;
    try
    {
      packages.call<vu::Value>("check", file.string());
    }
    catch (const ZB::ZBError& fault)
    {
      throw named(fault, vu::ServiceError::Kind::InvalidArguments);
    }
    throw named(failure, failure.kind());
  }
}

} // namespace

/// In the order in which it comes into being; it goes the other way round.
struct Host::Running
{
  explicit Running(const fs::path& root) : directory(root) {}

  ~Running()
  {
    if (gateway)
      gateway->beginStopping();
    // Behaviors have the same time to end as clients have to leave, and all
    // the same: modules stop theirs one after another when they go.
    if (const auto frames = broker ? broker->session()->find("ZBFrameManager") : nullptr)
    {
      const vu::CallerScope caller("host");
      frames->call("_beginClosing", vu::Value::array());
    }
    if (gateway)
      gateway->stop();
    if (broker)
      broker->shutdown();
  }

  RunDirectory directory;
  std::unique_ptr<Gateway> gateway;
  std::string url;
  std::shared_ptr<ZB::ZBBroker> broker;
};

Host::Host(Options options) : _options(std::move(options)) { _options.root = resolveRoot(_options.root.string()); }

Host::~Host() { stop(); }

void Host::start()
{
  if (_running)
    throw std::logic_error("this host runs already");
  auto running = std::make_unique<Running>(_options.root);

  Gateway::Options gateway;
  std::tie(gateway.address, gateway.port) = parseListen(_options.listen);
  gateway.tlsCertificate = _options.tlsCertificate;
  gateway.tlsKey = _options.tlsKey;
  gateway.certificateTaken = [&directory = running->directory](const std::string& pem) { directory.writeCertificate(pem); };
  gateway.insecure = _options.insecure;
  gateway.limits = _options.limits;
  const auto access = gateway.access;
  gateway.upload = installUpload;
  gateway.collectors = {writeBehaviorMetrics, writeLogMetrics};
  gateway.uploadDirectory = running->directory.layout().run;
  running->gateway = std::make_unique<Gateway>(std::move(gateway));
  // The address is known before the modules are loaded, which may start
  // programs that need it; clients wait until they are.
  running->url = running->gateway->listen();

  ZB::ZBBroker::Options broker;
  auto systemPackages = vu::Value::array();
  for (const auto& directory : _options.systemPackages)
    systemPackages.push_back(fs::absolute(directory).lexically_normal().string());
  broker.configuration = {{"root", _options.root.string()},
                          {"systemPackages", systemPackages},
                          {"url", running->url},
                          {"packageLimits", {{"bytes", _options.packageBytes}, {"entries", _options.packageEntries}}},
                          {"history", {{"runs", _options.runs}}},
                          {"framemanager", _options.frameManager}};
  if (!_options.tlsCertificate.empty())
    broker.configuration["certificate"] = running->directory.layout().certificate.string();
  running->broker = ZB::ZBBroker::create(std::move(broker));
  _running = std::move(running);
  try
  {
    auto& directory = _running->directory; // outlives the broker
    _running->broker->createModule<Tokens>("Tokens", directory.layout(), access,
                                           [&directory](const std::string& token) { return directory.writeToken(token); });
    loadModules();
    _running->gateway->start(_running->broker);
    _running->directory.announce(_running->url);
    const vu::CallerScope caller("host");
    const ZB::ZBMemoryProxy memory(_running->broker);
    memory.declareEvent("TarvikReady");
    memory.raiseMicroEvent("TarvikReady", 1);
  }
  catch (...)
  {
    stop();
    throw;
  }
  vu::log::info("host", __func__, "ready at " + _running->url + " on the root " + _options.root.string());
}

void Host::loadModules()
{
  const auto directory = _options.moduleDirectory.empty() ? findModules() : fs::absolute(_options.moduleDirectory);
  for (const auto* const name : platformModules)
    _running->broker->loadLibrary(directory / ("lib" + std::string(name) + ".so"));
  for (const auto& file : _options.modules)
    try
    {
      _running->broker->loadLibrary(fs::absolute(file));
    }
    catch (const std::exception& error)
    {
      vu::log::error("host", __func__, "the host goes on without the module library " + file.string() + ": " + error.what());
    }
}

void Host::probe(std::function<void()> done) const
{
  if (!_running)
    throw std::logic_error("this host does not run");
  _running->gateway->post(
      [broker = _running->broker, done = std::move(done)]
      {
        broker->pool()->postUrgent(
            [frames = broker->session()->find("ZBFrameManager"), done]
            {
              if (!frames)
                return done();
              frames->call("_ping", vu::Value::array()).then([done](const vu::Future<vu::Value>&) { done(); });
            });
      });
}

void Host::stop()
{
  if (!_running)
    return;
  vu::log::info("host", __func__, "shutting down");
  _running.reset();
}

std::chrono::microseconds Host::stopLimit() const
{
  constexpr std::chrono::seconds rest(10);
  constexpr int standardGrace = 2000;
  const auto grace = _options.frameManager.value("terminateGraceMs", standardGrace);
  return rest + std::max<std::chrono::microseconds>(std::chrono::milliseconds(grace), _options.limits.close);
}

const std::string& Host::url() const
{
  if (!_running)
    throw std::logic_error("this host does not run");
  return _running->url;
}

const fs::path& Host::root() const { return _options.root; }

const std::shared_ptr<ZB::ZBBroker>& Host::broker() const
{
  if (!_running)
    throw std::logic_error("this host does not run");
  return _running->broker;
}

} // namespace Tarvik
