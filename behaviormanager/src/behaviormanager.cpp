#include <behaviormanager/behaviormanager.hpp>

#include <chrono>
#include <cmath>
#include <utility>

#include <vu/log.hpp>
#include <vu/os.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

const std::string ZBBehaviorManager::defaultUserBehaviorsPath = vu::os::home() + "/Library/tarvik/behaviors";
const std::string ZBBehaviorManager::defaultBehaviorsModuleName = "DefaultBehaviors";
const std::string ZBBehaviorManager::fxarFileName = "behavior.xar";
const std::string ZBBehaviorManager::fTarvikReady = "TarvikReady";
const std::string ZBBehaviorManager::fPackageInstalled = "packageInstalled";
const std::string ZBBehaviorManager::fPackageRemoved = "packageRemoved";

namespace
{
constexpr int frameManagerTimeoutMs = 60000;
constexpr std::chrono::seconds lastReportsLimit(5);
constexpr const char* callbackMethod = "_onDataChanged";
} // namespace

ZBBehaviorManager::ZBBehaviorManager(std::shared_ptr<ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
{
  _memory = getParentBroker()->getSpecialisedProxy<ZBMemoryProxy>("ZBMemory");
  _frameManager = std::make_shared<ZBFrameManagerProxy>(getParentBroker());
  _frameManagerObject = getParentBroker()->session()->service("ZBFrameManager", "", frameManagerTimeoutMs).value();

  bindMethods();
  advertiseSignals();

  const std::string notStarted = " event. The BehaviorManager is not started properly.";
  try
  {
    _memory->subscribeToMicroEvent(fTarvikReady, getName(), "", callbackMethod);
  }
  catch (const ZBError&)
  {
    vu::log::error(logCategory, "ZBBehaviorManager", "Could not subscribe to the " + fTarvikReady + notStarted);
  }
  for (const char* key : {behaviorsLoadedKey, behaviorsRunKey, behaviorFailedKey, behaviorAddedKey, behaviorsAddedKey, behaviorUpdatedKey,
                          behaviorRemovedKey, behaviorsRemovedKey})
    try
    {
      _memory->declareEvent(key);
    }
    catch (const ZBError&)
    {
      vu::log::error(logCategory, "ZBBehaviorManager", std::string("Could not declare the ") + key + notStarted);
    }

  _packageManager = getParentBroker()->getProxy("PackageManager", 0);
  for (const auto& event : {fPackageInstalled, fPackageRemoved})
    try
    {
      _memory->subscribeToEvent(event, getName(), "", callbackMethod);
    }
    catch (const ZBError& error)
    {
      vu::log::error(logCategory, "ZBBehaviorManager", "Could not subscribe to \"" + event + "\" event: " + error.what());
    }

  // Subscribed first: what is installed meanwhile comes as an event, too, and
  // is then found to be there already.
  if (!_packageManager)
    throw ZBError(vu::unknownService("PackageManager", "packages"));
  _catalogue.fill([this] { return _packageManager->call<std::vector<vu::PackageInfo>>("packages"); });
}

ZBBehaviorManager::~ZBBehaviorManager()
{
  const auto guarded = [](const auto& step)
  {
    try
    {
      step();
    }
    catch (const ZBError& error)
    {
      vu::log::verbose(logCategory, "~ZBBehaviorManager", std::string("~ZBBehaviorManager: ") + error.what());
    }
  };
  guarded([this] { stopAllBehaviors(); });
  for (const auto& path : getLoadedBehaviors())
    guarded([&] { unloadBehavior(path); });
  // Names that do not resolve any more are unloaded by their records.
  for (const auto& path : getLoadedBehaviors())
    guarded([&] { xUnloadBehavior(path); });

  // The frame manager's reports of these ends stand in the line; they still get in.
  _frameManagerObject.delivered().wait(lastReportsLimit);
  _gate->closeAndDrain();
  // The reports of what is left will come too late for the gate.
  for (const auto& links : _registry.clear())
    xDisconnect(links);
}

void ZBBehaviorManager::onDataChanged(const std::string& dataName, const ZBValue& dataValue, const std::string&)
{
  if (dataName == fTarvikReady)
  {
    if (std::trunc(static_cast<float>(dataValue)) == 1.0F)
      playDefaultProject();
  }
  else if (dataName == fPackageInstalled)
    xPackageAdded(vu::PackageInfo(dataValue.value()));
  else if (dataName == fPackageRemoved)
    xPackageRemoved(vu::PackageInfo(dataValue.value()));
}

} // namespace ZB::BehaviorManager
