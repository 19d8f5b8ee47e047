#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <packagestore.hpp>
#include <vu/orderedemitter.hpp>
#include <vu/packageinfo.hpp>
#include <zb/zbmemoryproxy.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

/// The service "PackageManager": installs and removes packages, and tells which
/// there are.
///
/// User packages stand in packages/UUID under the root. System packages, with
/// the installer "system", come from the directories that the configuration
/// names, are read when the module is constructed, and are never changed; a
/// user package of the same uuid is left out. A package that is damaged is
/// logged as an error that names its place, and left out.
///
/// Every change raises the micro-event "packageInstalled" or "packageRemoved"
/// with the package's record, in the order of the changes, outside of every
/// lock and before install() or remove() returns. (One called on the thread of
/// a callback of such a raise returns before its own event, which follows.)
/// Replacing a package raises both, the old record first.
///
/// Configuration, all of it the broker's: "root", an absolute path;
/// "systemPackages", absolute paths, each of a package's directory or of a
/// directory whose subdirectories are packages; "packageLimits" with "bytes"
/// and "entries", what an archive may unpack to.
///
/// Every failure is a ZBError that names the path or package. Thread-safe.
class PackageManager : public ZBModule
{
public:
  /// Throws a ZBError for a wrong configuration and when the folder of the
  /// packages cannot be used.
  PackageManager(std::shared_ptr<ZBBroker> broker, const std::string& name);
  ~PackageManager() override;

  /// Sorted by uuid.
  std::vector<vu::PackageInfo> packages();
  vu::PackageInfo package(const std::string& uuid);
  bool hasPackage(const std::string& uuid);

  /// `path`, absolute, is the directory of a package or a zip archive of one.
  /// Gives the uuid. A failure changes nothing.
  std::string install(const std::string& path, const std::string& installer);
  void remove(const std::string& uuid);

  /// Fails where install() would, and gives the record that the package would
  /// have, without an installer, with the "faults" of its projects: [{file,
  /// line, text}], with which it could be installed, though what has one
  /// cannot be loaded. Changes nothing.
  vu::Value check(const std::string& path);

private:
  void bindMethods();
  void declareEvents();
  void loadSystemPackages();
  void loadSystemPackage(const std::filesystem::path& directory);
  void loadUserPackages();
  void refuseSystemPackage(const char* method, const std::string& uuid);
  /// To be called with _changes and _mutex held.
  vu::OrderedEmitter::Ticket queue(const char* event, const vu::PackageInfo& package);

  template <typename F> auto guarded(const char* method, const std::string& subject, const F& function) const -> decltype(function());

  UnpackLimits _limits;
  std::unique_ptr<PackageStore> _store;
  const ZBMemoryProxy _memory;
  /// Serialises the changes of the folder; taken before _mutex, and held while
  /// the disk is written, which readers need not wait for.
  std::mutex _changes;
  std::mutex _mutex; // guards _packages
  std::map<std::string, vu::PackageInfo> _packages;
  vu::OrderedEmitter _emitter;
};

} // namespace ZB
