#pragma once

#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <behaviormanager/behaviormanager.hpp>
#include <vu/log.hpp>
#include <vu/object.hpp>
#include <zb/zbbroker.hpp>

#include "standins.hpp"

namespace ZB::BehaviorManager
{

/// The module on a real broker and middleware, between stand-in services:
/// every test of the module begins with one.
///
/// Its journal holds, in the order of emission, "signal <name> <arguments>"
/// for the module's signals and "event <key> <value>" for its memory events,
/// besides the calls that the stand-ins write down.
class TestPlatform
{
public:
  TestPlatform();
  ~TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  /// A package with a directory for each behavior path.
  vu::PackageInfo makePackage(const std::string& uuid, const std::list<vu::BehaviorInfo>& behaviors, const std::string& installer = "user");
  static std::list<vu::BehaviorInfo> paths(const std::vector<std::string>& paths);

  /// Creates stand-ins (once) and the module; the package manager tells `packages`.
  ZBBehaviorManager& start(std::vector<vu::PackageInfo> packages = {});
  /// The stand-ins alone, for a test that prepares them.
  void startServices(std::vector<vu::PackageInfo> packages = {});
  /// Removes the module.
  void stop();

  /// The same events that the memory module brings.
  void install(const vu::PackageInfo& package) { manager->onDataChanged("packageInstalled", package.toValue(), ""); }
  void remove(const vu::PackageInfo& package) { manager->onDataChanged("packageRemoved", package.toValue(), ""); }

  /// Waits until no delivery, continuation or posted call is queued or running.
  void settle() { broker->pool()->waitUntilIdle(); }
  std::string id(const std::string& behavior) { return manager->getBehaviorFrameManagerId(behavior); }

  const std::filesystem::path directory;
  Journal journal;
  vu::log::Capture log;
  std::shared_ptr<ZBBroker> broker;
  StandInMemory* memory = nullptr;
  StandInFrameManager* frames = nullptr;
  StandInPackageManager* packageManager = nullptr;
  StandInPreferences* preferences = nullptr;
  ZBBehaviorManager* manager = nullptr;
};

/// What `action` throws must be a ZBError of the module; gives "method: description".
std::string errorOf(const std::function<void()>& action);

/// The tests' way to the private operations.
struct ModuleAccess
{
  ZBBehaviorManager& module;

  BehaviorInfo* info(const std::string& path) { return module.xBehaviorInfo(path); }
  bool hasRecord(const std::string& path);
  void setState(const std::string& path, BehaviorState state) { module.xSetBehaviorState(path, state); }
  void setId(const std::string& path, const std::string& id) { module.xSetFrameManagerId(path, id); }
  std::string find(const std::string& name) { return module.xFindBehavior(name); }
  std::string resolve(const std::string& name, std::string* package, std::string* behavior)
  {
    return module.xResolveBehaviorName(name, package, behavior);
  }
  std::string packageDirectory(const std::string& uuid) { return module.getPackageDir(uuid); }
  bool isDefault(const std::string& name) { return module.xIsDefaultBehavior(name); }
  void updated(const std::string& name) { module.onBehaviorUpdated(name); }
  vu::Gate::Pass enter() { return module._gate->enter(); }
  bool copy(const std::string& from, const std::string& to) { return module.copy(from, to); }
};

} // namespace ZB::BehaviorManager
