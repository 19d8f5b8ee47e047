#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <behaviormanager/behaviorinfo.hpp>
#include <behaviormanager/catalogue.hpp>
#include <behaviormanager/constants.hpp>
#include <behaviormanager/registry.hpp>
#include <vu/future.hpp>
#include <vu/gate.hpp>
#include <vu/object.hpp>
#include <vu/packageinfo.hpp>
#include <vu/signal.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zbframemanagerproxy.hpp>
#include <zb/zbmemoryproxy.hpp>
#include <zb/zbmodule.hpp>
#include <zb/zbproxy.hpp>
#include <zb/zbvalue.hpp>

namespace ZB::BehaviorManager
{

/// The behavior manager: loads, starts, runs, stops and unloads behaviors
/// through the frame manager, and follows packages that come and go. What is
/// installed stands in its catalogue, what is loaded in its registry; every
/// change is announced by a signal and memory events.
///
/// A behavior is named by its package's uuid, "/", and its path inside the
/// package. Wherever a client gives a name, it may also give the legacy forms
/// "User/<uuid>/<path>" and "System/<uuid>/<path>", the bare uuid of a package
/// that is a behavior itself, or a path that is unique among all packages; one
/// that is not unique is refused with a ZBError.
///
/// Errors that reach a client are ZBErrors. All public methods may be called
/// on any thread, several at once. Signals are emitted with the behavior's
/// loading or running lock held: connect through a vu::Object, whose callbacks
/// are queued and may call anything.
class __attribute__((visibility("default"))) ZBBehaviorManager : public ZBModule
{
public:
  using InstallerFlag = Catalogue::InstallerFlag;
  using enum Catalogue::InstallerFlag;

  static const std::string defaultUserBehaviorsPath;
  /// Name of the preference file of default behaviors, and of its one setting.
  static const std::string defaultBehaviorsModuleName;
  /// The project file in a behavior's directory.
  static const std::string fxarFileName;
  static const std::string fTarvikReady;
  static const std::string fPackageInstalled;
  static const std::string fPackageRemoved;

  /// Waits for the frame manager for up to 60 seconds. Throws when that is not
  /// there, or the package manager does not tell its packages; a memory module
  /// that refuses an event or a subscription is only logged.
  ZBBehaviorManager(std::shared_ptr<ZBBroker> broker, const std::string& name);
  /// Stops and unloads everything.
  ~ZBBehaviorManager() override;

  /// Advertised as "preloadBehavior". True when the behavior is loaded, now or already.
  bool loadBehavior(const std::string& behavior);
  /// Loads the behavior if need be; returns when it plays.
  void startBehavior(const std::string& behavior);
  /// Starts the behavior; the future completes when it has ended and been
  /// unloaded, with the error's text where it failed.
  vu::Future<void> runBehavior(const std::string& behavior);
  /// Stops and unloads.
  void stopBehavior(const std::string& behavior);
  void stopAllBehaviors();
  /// Not advertised. False when the behavior could not be stopped.
  bool unloadBehavior(const std::string& behavior);

  /// Whether the name denotes a behavior whose directory exists.
  bool isBehaviorInstalled(const std::string& name);
  bool isBehaviorPresent(const std::string& name);
  std::vector<std::string> getBehaviorNames();
  std::vector<std::string> getUserBehaviorNames();
  std::vector<std::string> getSystemBehaviorNames();
  /// In the order of installation; a package that is a behavior itself is
  /// listed by its bare uuid.
  std::vector<std::string> getInstalledBehaviors();
  /// Sorted; the tags of locale "en_US" count.
  std::vector<std::string> getBehaviorsByTag(const std::string& tag);
  bool isBehaviorRunning(const std::string& behavior);
  bool isBehaviorLoaded(const std::string& behavior);
  /// Sorted.
  std::vector<std::string> getRunningBehaviors();
  /// Sorted; running behaviors are loaded, too.
  std::vector<std::string> getLoadedBehaviors();
  /// Sorted; the tags of the locales "en_US" and "en" together.
  std::vector<std::string> getTagList();
  std::vector<std::string> getBehaviorTags(const std::string& path);
  std::string getBehaviorNature(const std::string& name);

  /// By the frame manager's id of a loaded behavior; advertised with a leading underscore.
  std::string getBehaviorRelativePath(const std::string& behaviorId);
  std::string getPackageUid(const std::string& behaviorId);

  void addDefaultBehavior(const std::string& behavior);
  void removeDefaultBehavior(const std::string& behavior);
  /// Sorted; only those that are installed.
  std::vector<std::string> getDefaultBehaviors();
  /// Posts a run of ".default" and of every default behavior.
  void playDefaultProject();

  /// Advertised as "_onDataChanged": what the memory module calls.
  void onDataChanged(const std::string& dataName, const ZBValue& dataValue, const std::string& message);
  /// Advertised with a leading underscore. Empty while not loaded.
  std::string getBehaviorFrameManagerId(const std::string& behavior);
  /// Empty when there is no such behavior.
  std::string resolveBehaviorName(const std::string& name) const;

  std::string httpGet() override;
  std::string javaScriptCode() const;

private:
  /// A name that has been resolved, and need not be again on its way.
  struct Resolved
  {
    std::string path; ///< empty when there is no such behavior
    std::string package;
    std::string relative;
  };
  using WhenReported = std::function<void(const vu::Future<vu::Value>& waited, const vu::Gate::Pass& pass)>;

  void bindMethods();
  void advertiseSignals();

  // Changes and their announcements
  void xSetBehaviorState(const std::string& path, BehaviorState newState);
  void xEndInstance(const std::string& path, const std::string& fmId);
  void xAnnounceState(const std::string& path, BehaviorState oldState, BehaviorState newState);
  void xRaise(const char* key, const ZBValue& value);
  void xPackageAdded(const vu::PackageInfo& package);
  void xPackageRemoved(const vu::PackageInfo& package);
  void onBehaviorAdded(const std::string& name, Catalogue::Installation installation);
  void onBehaviorUpdated(const std::string& name);
  void onBehaviorRemoved(const std::string& name);

  // Lifecycle
  Resolved xResolve(const std::string& name) const;
  void xLoadBehavior(const std::string& name, const Resolved& behavior);
  std::string xStartBehavior(const Resolved& behavior);
  void xConnectPlay(const std::shared_ptr<BehaviorPlay>& play);
  void xEndStarting(const std::shared_ptr<BehaviorPlay>& play);
  vu::Future<void> xAwaitRun(const std::string& name, const std::string& path, const std::string& fmId);
  void _runBehaviorCont(const vu::Future<vu::Value>& waited, const std::string& name, const std::string& path, const std::string& fmId,
                        const vu::Promise<void>& promise);
  void xStopBehavior(const std::string& behavior, bool waitForRun);
  void xUnloadBehavior(const std::string& path);
  void xUnloadInstance(const std::string& path, const std::string& fmId);
  void xUnloadLocked(const std::string& path);
  void xDeleteInstance(const std::shared_ptr<BehaviorPlay>& play);
  void xWhenReported(const vu::Future<vu::Value>& waited, const WhenReported& action) const;
  void onBehaviorStopped(const std::shared_ptr<BehaviorPlay>& play, const std::string& stoppedId);
  void onBehaviorFailed(const std::shared_ptr<BehaviorPlay>& play, const std::string& failedId, const std::string& second,
                        const std::string& third);
  void xAnnounceFailure(const BehaviorPlay& play, const std::string& second, const std::string& third);
  void xFinishPlay(const std::shared_ptr<BehaviorPlay>& play);
  void xDisconnect(const Registry::Links& links) const;

  std::string xBehaviorOfId(const std::string& behaviorId, const char* method) const;

  // Default behaviors
  void xReadDefaultBehaviors(std::set<std::string>& out) const;
  void xWriteDefaultBehaviors(const std::set<std::string>& names) const;

  vu::Signal<std::vector<std::string>> behaviorsAdded;
  vu::Signal<std::vector<std::string>> behaviorsRemoved;
  vu::Signal<std::string> behaviorLoaded;
  vu::Signal<std::string> behaviorStarted;
  vu::Signal<std::string> behaviorStopped;
  vu::Signal<std::string, std::string, std::string> behaviorFailed;

  // Lock order: a record's running mutex, its loading mutex, and below these
  // the locks inside the registry and the catalogue, which call nothing out.
  // Callbacks of the frame manager take no running or loading mutex; nobody
  // disconnects from its signals with a loading mutex held, since that waits
  // for a callback.
  Registry _registry;
  Catalogue _catalogue;

  std::shared_ptr<ZBMemoryProxy> _memory;
  std::shared_ptr<ZBFrameManagerProxy> _frameManager;
  vu::Object _frameManagerObject;
  std::shared_ptr<ZBProxy> _packageManager;

  /// Lets callbacks of the frame manager and continuations in; they hold it.
  const std::shared_ptr<vu::Gate> _gate = std::make_shared<vu::Gate>();
};

} // namespace ZB::BehaviorManager
