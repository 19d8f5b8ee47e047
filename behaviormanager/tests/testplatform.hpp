#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <behaviormanager/behaviormanager.hpp>
#include <vu/log.hpp>
#include <vu/object.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zbvalue.hpp>

#include <testing/files.hpp>

#include "standins.hpp"

namespace ZB::BehaviorManager
{

/// The module on a real broker and middleware, between stand-in services.
///
/// Its journal holds, in the order of emission, "signal <name> <arguments>"
/// for the module's signals besides the calls that the stand-ins write down.
/// A test may come in during the module's signals.
class TestPlatform : public Interruptions
{
public:
  explicit TestPlatform(vu::ThreadPool::Limits pool = {});
  ~TestPlatform() { broker->shutdown(); }
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  /// A package with a directory for each behavior path.
  vu::PackageInfo makePackageOf(const std::string& uuid, const std::list<vu::BehaviorInfo>& behaviors,
                                const std::string& installer = "user");
  vu::PackageInfo makePackage(const std::string& uuid, const std::vector<std::string>& paths);

  /// Creates stand-ins (once) and the module; the package manager tells `packages`.
  ZBBehaviorManager& start(const std::vector<vu::PackageInfo>& packages = {});
  /// The stand-ins alone, for a test that prepares them.
  void startServices(const std::vector<vu::PackageInfo>& packages = {});
  /// Removes the module.
  void stop();

  /// The same events that the memory module brings.
  void install(const vu::PackageInfo& package) { manager->onDataChanged("packageInstalled", package.toValue(), ""); }
  void remove(const vu::PackageInfo& package) { manager->onDataChanged("packageRemoved", package.toValue(), ""); }

  vu::Object service() const { return vu::Object(broker->session()->find("ZBBehaviorManager")); }
  /// Waits until no delivery, continuation or posted call is queued or running.
  void settle() { broker->pool()->waitUntilIdle(); }
  /// Waits until what was posted so far has run, or blocks: on a pool of one
  /// thread, which gets another only when nothing moves.
  void passPosted();
  std::string id(const std::string& behavior) { return manager->getBehaviorFrameManagerId(behavior); }

  const TestSupport::TemporaryDirectory directory;
  Journal journal;
  vu::log::Capture log;
  const std::shared_ptr<ZBBroker> broker;
  StandIn* memory = nullptr;
  StandIn* packageManager = nullptr;
  StandIn* preferences = nullptr;
  StandInFrameManager* frames = nullptr;
  std::optional<vu::Value> preferenceFile; // tests and module use it one after the other
  ZBBehaviorManager* manager = nullptr;
};

/// "module.method: description" of the ServiceError that `action` throws, "no error" without one.
std::string refusal(const std::function<void()>& action);

} // namespace ZB::BehaviorManager
