#include <packagemanager.hpp>

#include <utility>

#include <packages/manifest.hpp>
#include <packages/packageerror.hpp>
#include <vu/caller.hpp>
#include <vu/log.hpp>
#include <vu/text.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

namespace fs = std::filesystem;
using packages::manifestFile;
using packages::PackageError;
using vu::inQuotes;

namespace
{

constexpr const char* installedEvent = "packageInstalled";
constexpr const char* removedEvent = "packageRemoved";
constexpr std::size_t longestInstaller = 128;

bool isSystemPackage(const vu::PackageInfo& package) { return package.installer() == systemInstaller; }

std::uintmax_t limitFrom(const vu::Value& limits, const char* name, std::uintmax_t standard)
{
  if (!limits.contains(name))
    return standard;
  if (!limits[name].is_number_integer() || limits[name] < 0)
    throw PackageError(std::string("the configured \"packageLimits\" have ") + limits[name].dump() + " as \"" + name +
                       "\", which is no whole number");
  return limits[name].get<std::uintmax_t>();
}

} // namespace

template <typename F>
auto PackageManager::guarded(const char* method, const std::string& subject, const F& function) const -> decltype(function())
{
  try
  {
    return function();
  }
  catch (const PackageError& error)
  {
    throw ZBError(getName(), method, subject + ": " + vu::validUtf8(error.what()));
  }
  catch (const fs::filesystem_error& error)
  {
    throw ZBError(getName(), method, subject + ": " + vu::validUtf8(error.what()));
  }
}

PackageManager::PackageManager(std::shared_ptr<ZBBroker> broker, const std::string& name)
    : ZBModule(std::move(broker), name), _memory(getParentBroker())
{
  const auto& configuration = getParentBroker()->configuration();
  const auto root = configuration.value("root", vu::Value());
  if (!root.is_string() || !fs::path(root.get<std::string>()).is_absolute())
    throw ZBError(name, "PackageManager", "the broker's configuration names no absolute \"root\" directory to keep the packages under");
  const auto directory = fs::path(root.get<std::string>()) / "packages";
  guarded("PackageManager", "the folder of the packages, " + inQuotes(directory.string()),
          [&]
          {
            const auto limits = configuration.value("packageLimits", vu::Value::object());
            _limits.bytes = limitFrom(limits, "bytes", _limits.bytes);
            _limits.entries = limitFrom(limits, "entries", _limits.entries);
            _store = std::make_unique<PackageStore>(directory);
            loadSystemPackages();
            loadUserPackages();
          });
  declareEvents();
  bindMethods();
}

PackageManager::~PackageManager() = default;

void PackageManager::bindMethods()
{
  setModuleDescription("Installs and removes packages of behaviors, and tells which there are");

  functionName("packages", getName(), "Get the records of all packages");
  setReturn("packages", "records, sorted by uuid");
  bindMethod(this, &PackageManager::packages);

  functionName("package", getName(), "Get the record of a package");
  addParam("uuid", "uuid of the package");
  setReturn("package", "its record");
  bindMethod(this, &PackageManager::package);

  functionName("hasPackage", getName(), "Tell whether there is a package");
  addParam("uuid", "uuid of the package");
  setReturn("installed", "true if there is");
  bindMethod(this, &PackageManager::hasPackage);

  functionName("install", getName(), "Install a package, in the place of one of the same uuid");
  addParam("path", "absolute path of the package's directory, or of a zip archive with the manifest at its top");
  addParam("installer", "whoever installs it; \"system\" is reserved");
  setReturn("uuid", "uuid of the package");
  setAccess(vu::Role::Admin);
  bindMethod(this, &PackageManager::install);

  functionName("remove", getName(), "Remove an installed package; those of the system stay");
  addParam("uuid", "uuid of the package");
  setAccess(vu::Role::Admin);
  bindMethod(this, &PackageManager::remove);

  functionName("check", getName(), "Check whether a package could be installed, without installing it");
  addParam("path", "absolute path of the package's directory or zip archive");
  setReturn("package", "the record that it would have, what it may call among it, and \"faults\": [{file, line, text}] of its projects");
  setAccess(vu::Role::Admin);
  bindMethod(this, &PackageManager::check);
}

void PackageManager::declareEvents()
{
  for (const auto* event : {installedEvent, removedEvent})
    try
    {
      _memory.declareEvent(event);
    }
    catch (const ZBError& error)
    {
      vu::log::error("packagemanager", "PackageManager::declareEvents",
                     "could not declare \"" + std::string(event) + "\": " + error.what());
    }
}

void PackageManager::loadSystemPackages()
{
  const auto directories = getParentBroker()->configuration().value("systemPackages", vu::Value::array());
  for (const auto& entry : directories)
    try
    {
      const fs::path directory = entry.get<std::string>();
      if (!directory.is_absolute())
        throw PackageError("the path is not absolute");
      if (fs::exists(directory / manifestFile))
      {
        loadSystemPackage(directory);
        continue;
      }
      for (const auto& child : fs::directory_iterator(directory))
        if (child.is_directory() && !child.path().filename().string().starts_with('.'))
          loadSystemPackage(child.path());
    }
    catch (const std::exception& error)
    {
      vu::log::error("packagemanager", "PackageManager::loadSystemPackages",
                     "no system packages from " + entry.dump() + ": " + vu::validUtf8(error.what()));
    }
}

void PackageManager::loadSystemPackage(const fs::path& directory)
{
  try
  {
    auto package = packages::readManifest(directory);
    package.installer = systemInstaller;
    package.path = fs::canonical(directory).string();
    if (const auto other = _packages.find(package.uuid); other != _packages.end())
      throw PackageError("its uuid is that of the package in " + inQuotes(other->second.path()));
    const auto uuid = package.uuid;
    _packages.emplace(uuid, std::move(package));
  }
  catch (const std::exception& error)
  {
    vu::log::error("packagemanager", "PackageManager::loadSystemPackage",
                   "the system package in " + inQuotes(directory.string()) + " is left out: " + vu::validUtf8(error.what()));
  }
}

void PackageManager::loadUserPackages()
{
  for (const auto& package : _store->load())
    if (!_packages.emplace(package.uuid(), package).second)
      vu::log::error("packagemanager", "PackageManager::loadUserPackages",
                     "the package in " + inQuotes(package.path()) + " is left out: its uuid is that of the system package in " +
                         inQuotes(_packages[package.uuid()].path()));
}

std::vector<vu::PackageInfo> PackageManager::packages()
{
  std::vector<vu::PackageInfo> result;
  const std::lock_guard lock(_mutex);
  for (const auto& [uuid, package] : _packages)
    result.push_back(package);
  return result;
}

vu::PackageInfo PackageManager::package(const std::string& uuid)
{
  const std::lock_guard lock(_mutex);
  const auto found = _packages.find(uuid);
  if (found == _packages.end())
    throw ZBError(getName(), "package", "there is no package " + inQuotes(uuid));
  return found->second;
}

bool PackageManager::hasPackage(const std::string& uuid)
{
  const std::lock_guard lock(_mutex);
  return _packages.contains(uuid);
}

std::string PackageManager::install(const std::string& path, const std::string& installer)
{
  if (installer == systemInstaller)
    throw ZBError(getName(), "install", "the installer \"system\" is reserved to the packages that the host is started with");
  if (installer.empty() || installer.size() > longestInstaller || inQuotes(installer).size() != installer.size() + 2)
    throw ZBError(getName(), "install",
                  inQuotes(installer) + " cannot name an installer: give 1 to " + std::to_string(longestInstaller) +
                      " bytes of UTF-8 without quotation marks, backslashes and control characters");
  if (!fs::path(path).is_absolute())
    throw ZBError(getName(), "install", "the path " + inQuotes(path) + " is not absolute");
  auto staged = guarded("install", inQuotes(path), [&] { return _store->stage(path, installer, _limits); });
  const auto uuid = staged.info.uuid();
  HiddenFolder replaced; // deleted in the end, when the lock has long been given back
  vu::OrderedEmitter::Ticket ticket;
  {
    const std::lock_guard changes(_changes);
    refuseSystemPackage("install", uuid);
    replaced = guarded("install", inQuotes(path), [&] { return _store->install(staged); });
    const std::lock_guard lock(_mutex);
    if (const auto old = _packages.find(uuid); old != _packages.end())
      queue(removedEvent, old->second);
    _packages[uuid] = staged.info;
    ticket = queue(installedEvent, staged.info);
  }
  _emitter.emit(ticket);
  return uuid;
}

void PackageManager::remove(const std::string& uuid)
{
  HiddenFolder removed;
  vu::OrderedEmitter::Ticket ticket;
  {
    const std::lock_guard changes(_changes);
    if (!hasPackage(uuid))
      throw ZBError(getName(), "remove", "there is no package " + inQuotes(uuid));
    refuseSystemPackage("remove", uuid);
    removed = guarded("remove", "the package " + inQuotes(uuid), [&] { return _store->remove(uuid); });
    const std::lock_guard lock(_mutex);
    ticket = queue(removedEvent, _packages[uuid]);
    _packages.erase(uuid);
  }
  _emitter.emit(ticket);
}

vu::Value PackageManager::check(const std::string& path)
{
  if (!fs::path(path).is_absolute())
    throw ZBError(getName(), "check", "the path " + inQuotes(path) + " is not absolute");
  const auto package = guarded("check", inQuotes(path), [&] { return _store->inspect(path, _limits); });
  refuseSystemPackage("check", package.info.uuid());
  auto result = package.info.toValue();
  result["faults"] = packages::toValue(package.faults);
  return result;
}

void PackageManager::refuseSystemPackage(const char* method, const std::string& uuid)
{
  const std::lock_guard lock(_mutex);
  if (const auto found = _packages.find(uuid); found != _packages.end() && isSystemPackage(found->second))
    throw ZBError(getName(), method,
                  "the package " + inQuotes(uuid) +
                      " belongs to the system and can be neither replaced nor removed: " + inQuotes(found->second.path()));
}

vu::OrderedEmitter::Ticket PackageManager::queue(const char* event, const vu::PackageInfo& package)
{
  return _emitter.queue(
      [this, event, package]
      {
        // What comes of it is done on the package manager's behalf, whichever thread announces.
        const vu::CallerScope caller(getName());
        try
        {
          _memory.raiseMicroEvent(event, ZBValue(package.toValue()));
        }
        catch (const ZBError& error)
        {
          vu::log::error("packagemanager", "PackageManager::queue",
                         "could not raise \"" + std::string(event) + "\" for " + inQuotes(package.uuid()) + ": " + error.what());
        }
      });
}

} // namespace ZB
