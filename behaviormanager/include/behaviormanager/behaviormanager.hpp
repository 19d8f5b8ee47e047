#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>
#include <boost/thread/mutex.hpp>

#include <behaviormanager/behaviorinfo.hpp>
#include <behaviormanager/constants.hpp>
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

/// The behavior manager: keeps the catalogue of installed behaviors, resolves
/// their names, and loads, starts, runs, stops and unloads them through the
/// frame manager. Every change is announced by a signal and memory events.
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
  /// Selects packages by their installer; a bit set.
  enum InstallerFlag
  {
    InstallerSystem = 1, ///< installed by "system"
    InstallerUser = 2,   ///< installed by anybody else
    InstallerAll = 3
  };

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
  friend struct ModuleAccess; // the tests' way to the private operations

  void bindMethods();
  void advertiseSignals();

  // Registry
  BehaviorInfo* xBehaviorInfo(const std::string& path);
  BehaviorLoadingLocker xBehaviorLoadingLock(const std::string& path);
  BehaviorRunningLocker xBehaviorRunningLock(const std::string& path);
  BehaviorState xBehaviorState(const std::string& path);
  std::string xFrameManagerId(const std::string& path);
  vu::SignalLink xBehaviorStoppedLink(const std::string& path);
  vu::SignalLink xBehaviorFailedLink(const std::string& path);
  void xSetBehaviorLinks(const std::string& path, const vu::SignalLink& stoppedLink, const vu::SignalLink& failedLink);
  void xSetBehaviorState(const std::string& path, BehaviorState newState);
  void xSetFrameManagerId(const std::string& path, const std::string& fmId);
  bool xEndInstance(const std::string& path, const std::string& fmId);
  void xEraseFrameManagerId(const std::string& fmId);
  void xAnnounceState(const std::string& path, BehaviorState oldState, BehaviorState newState);
  void xRaise(const char* key, const ZBValue& value);
  std::vector<std::string> xBehaviorsWhere(bool (*matches)(BehaviorState));

  // Lifecycle
  std::string xStartBehavior(const std::string& behavior);
  std::shared_ptr<BehaviorPlay> xBeginPlay(const std::string& path, BehaviorInfo& info);
  void xConnectPlay(const std::shared_ptr<BehaviorPlay>& play);
  void xEndStarting(const std::shared_ptr<BehaviorPlay>& play);
  void _runBehaviorCont(const vu::Future<void>& waited, const std::string& name, const std::string& path, const std::string& fmId,
                        const vu::Promise<void>& promise);
  void xStopBehavior(const std::string& behavior, bool waitForRun);
  void xUnloadBehavior(const std::string& path);
  void xUnloadLocked(const std::string& path);
  void xDeleteInstance(const std::string& path, const std::string& fmId);
  void onBehaviorStopped(const std::shared_ptr<BehaviorPlay>& play, const std::string& stoppedId);
  void onBehaviorFailed(const std::shared_ptr<BehaviorPlay>& play, const std::string& failedId, const std::string& second,
                        const std::string& third);
  void xAnnounceFailure(const BehaviorPlay& play, const std::string& second, const std::string& third);
  void xFinishPlay(const std::shared_ptr<BehaviorPlay>& play);

  // Catalogue
  std::vector<std::string> xGetBehaviorsInPackages(InstallerFlag flags) const;
  bool xIsSystemPackage(const vu::PackageInfo& package) const;
  std::string xResolveBehaviorName(const std::string& name, std::string* package, std::string* behavior) const;
  std::string xFindBehavior(const std::string& name) const;
  void xPackageAdded(const vu::PackageInfo& package);
  void xPackageRemoved(const vu::PackageInfo& package);
  void onBehaviorAdded(const std::string& name);
  void onBehaviorUpdated(const std::string& name);
  void onBehaviorRemoved(const std::string& name);
  std::string getPackageDir(const std::string& uuid) const;

  // Metadata
  std::string xBehaviorOfId(const std::string& behaviorId, const char* method);

  // Default behaviors
  void xReadDefaultBehaviors(std::set<std::string>& out) const;
  void xWriteDefaultBehaviors(const std::set<std::string>& names) const;
  bool xIsDefaultBehavior(const std::string& name) const;
  bool copy(const boost::filesystem::path& from, const boost::filesystem::path& to);

  vu::Signal<std::vector<std::string>> behaviorsAdded;
  vu::Signal<std::vector<std::string>> behaviorsRemoved;
  vu::Signal<std::string> behaviorLoaded;
  vu::Signal<std::string> behaviorStarted;
  vu::Signal<std::string> behaviorStopped;
  vu::Signal<std::string, std::string, std::string> behaviorFailed;

  // Lock order: a record's running mutex, its loading mutex, the registry
  // mutex, then a record's own mutex or the id index mutex. The package mutex
  // is held only for a walk over the packages. Callbacks of the frame manager
  // take no running or loading mutex; nobody disconnects from its signals with
  // a loading mutex or one of the inner mutexes held, since that waits for a
  // callback.
  mutable boost::mutex _registryMutex; // guards _behaviors and _openPlays, and is held for every change of a state or an id
  std::map<std::string, std::unique_ptr<BehaviorInfo>> _behaviors; // records stay until the module ends
  std::set<std::shared_ptr<BehaviorPlay>> _openPlays;              // those with connections
  mutable boost::mutex _fmIdsMutex;                                // guards _fmIds
  std::map<std::string, std::string> _fmIds;                       // frame manager's id -> behavior
  std::vector<vu::PackageInfo> _packages;                          // in the order of arrival
  mutable boost::mutex _packagesMutex;                             // guards _packages

  std::shared_ptr<ZBMemoryProxy> _memory;
  std::shared_ptr<ZBFrameManagerProxy> _frameManager;
  vu::Object _frameManagerObject;
  std::shared_ptr<ZBProxy> _packageManager;

  /// Lets callbacks of the frame manager and continuations in; they hold it.
  const std::shared_ptr<vu::Gate> _gate = std::make_shared<vu::Gate>();
};

} // namespace ZB::BehaviorManager
