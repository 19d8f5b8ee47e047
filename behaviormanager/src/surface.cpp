#include <behaviormanager/behaviormanager.hpp>

namespace ZB::BehaviorManager
{

// The order is the one in which clients see the methods. The texts are
// published; blanks and oddities included.
void ZBBehaviorManager::bindMethods()
{
  setModuleDescription("This module is intended to manage behaviors. With this module, you can load, start, stop behaviors, add default "
                       "behaviors or remove them. \n");

  const auto behaviorParameter = [this] { addParam("behavior", "Behavior name "); };
  const auto deprecatedList = [this](const char* list, const char* prefix)
  {
    setReturn("return", std::string("Returns the list of ") + list + " prefixed by " + prefix +
                            ". DEPRECATED in favor of ZBBehaviorManager.getInstalledBehaviors.");
  };

  functionName("preloadBehavior", getName(), "Load a behavior");
  behaviorParameter();
  setReturn("success", "Returns true if it was successfully loaded.");
  bindMethod(this, &ZBBehaviorManager::loadBehavior);

  functionName("startBehavior", getName(), "Starts a behavior, returns when started.");
  behaviorParameter();
  bindMethod(this, &ZBBehaviorManager::startBehavior);

  functionName("runBehavior", getName(), "Runs a behavior, returns when finished");
  behaviorParameter();
  bindMethod(this, &ZBBehaviorManager::runBehavior);

  functionName("stopBehavior", getName(), "Stop a behavior");
  behaviorParameter();
  bindMethod(this, &ZBBehaviorManager::stopBehavior);

  functionName("stopAllBehaviors", getName(), "Stop all behaviors");
  bindMethod(this, &ZBBehaviorManager::stopAllBehaviors);

  functionName("isBehaviorInstalled", getName(), "Tell if supplied name corresponds to a behavior that has been installed");
  addParam("name", "The behavior directory name");
  setReturn("return", "Returns true if it is a valid behavior");
  bindMethod(this, &ZBBehaviorManager::isBehaviorInstalled);

  functionName("isBehaviorPresent", getName(), "Tell if the supplied namecorresponds to an existing behavior.");
  addParam("prefixedBehavior",
           "Prefixed behavior or just behavior's name (latter usage deprecated, in this case the behavior is searched for amongst user's "
           "behaviors, then in system behaviors) DEPRECATED in favor of ZBBehaviorManager.isBehaviorInstalled.");
  setReturn("return", "Returns true if it is an existing behavior");
  bindMethod(this, &ZBBehaviorManager::isBehaviorPresent);

  functionName("getBehaviorNames", getName(), "Get behaviors");
  deprecatedList("behaviors", "their type (User/ or System/)");
  bindMethod(this, &ZBBehaviorManager::getBehaviorNames);

  functionName("getUserBehaviorNames", getName(), "Get user's behaviors");
  deprecatedList("user's behaviors", "User/");
  bindMethod(this, &ZBBehaviorManager::getUserBehaviorNames);

  functionName("getSystemBehaviorNames", getName(), "Get system behaviors");
  deprecatedList("system behaviors", "System/");
  bindMethod(this, &ZBBehaviorManager::getSystemBehaviorNames);

  functionName("getInstalledBehaviors", getName(), "Get installed behaviors directories names");
  setReturn("return", "Returns the behaviors list");
  bindMethod(this, &ZBBehaviorManager::getInstalledBehaviors);

  functionName("getBehaviorsByTag", getName(), "Get installed behaviors directories names and filter it by tag.");
  addParam("tag", "A tag to filter the list with.");
  setReturn("behaviors", "Returns the behaviors list");
  bindMethod(this, &ZBBehaviorManager::getBehaviorsByTag);

  functionName("isBehaviorRunning", getName(), "Tell if supplied name corresponds to a running behavior");
  behaviorParameter();
  setReturn("return", "Returns true if it is a running behavior");
  bindMethod(this, &ZBBehaviorManager::isBehaviorRunning);

  functionName("isBehaviorLoaded", getName(), "Tell if supplied name corresponds to a loaded behavior");
  behaviorParameter();
  setReturn("return", "Returns true if it is a loaded behavior");
  bindMethod(this, &ZBBehaviorManager::isBehaviorLoaded);

  functionName("getRunningBehaviors", getName(), "Get running behaviors");
  setReturn("return", "Return running behaviors");
  bindMethod(this, &ZBBehaviorManager::getRunningBehaviors);

  functionName("getLoadedBehaviors", getName(), "Get loaded behaviors");
  setReturn("return", "Return loaded behaviors");
  bindMethod(this, &ZBBehaviorManager::getLoadedBehaviors);

  functionName("getTagList", getName(), "Get tags found on installed behaviors.");
  setReturn("tags", "The list of tags found.");
  bindMethod(this, &ZBBehaviorManager::getTagList);

  functionName("getBehaviorTags", getName(), "Get tags found on the given behavior.");
  addParam("behavior", "The local path towards a behavior or a directory.");
  setReturn("tags", "The list of tags found.");
  bindMethod(this, &ZBBehaviorManager::getBehaviorTags);

  functionName("getBehaviorNature", getName(), "Get the nature of the given behavior.");
  addParam("behavior", "The local path towards a behavior or a directory.");
  setReturn("nature", "The nature of the behavior.");
  bindMethod(this, &ZBBehaviorManager::getBehaviorNature);

  functionName("_getBehaviorRelativePath", getName(), "Get the relative path of a running behavior inside its package.");
  addParam("behaviorId", "The ID of the behavior.");
  setReturn("relativePath", "The relative path of the behavior.");
  bindMethod(this, &ZBBehaviorManager::getBehaviorRelativePath);

  functionName("_getPackageUid", getName(), "Get the package UID of a running behavior.");
  addParam("behaviorId", "The ID of the behavior.");
  setReturn("packageUid", "The package UID of the behavior.");
  bindMethod(this, &ZBBehaviorManager::getPackageUid);

  functionName("addDefaultBehavior", getName(), "Set the given behavior as default");
  behaviorParameter();
  bindMethod(this, &ZBBehaviorManager::addDefaultBehavior);

  functionName("removeDefaultBehavior", getName(), "Remove the given behavior from the default behaviors");
  behaviorParameter();
  bindMethod(this, &ZBBehaviorManager::removeDefaultBehavior);

  functionName("getDefaultBehaviors", getName(), "Get default behaviors");
  setReturn("return", "Return default behaviors");
  bindMethod(this, &ZBBehaviorManager::getDefaultBehaviors);

  functionName("playDefaultProject", getName(), "Play default behaviors");
  bindMethod(this, &ZBBehaviorManager::playDefaultProject);

  functionName("_onDataChanged", getName(), "Be notified when something we have subscribe to has changed in ZBMemory");
  addParam("dataName", "name of the data");
  addParam("dataValue", "value of the data");
  addParam("message", "callback message");
  bindMethod(this, &ZBBehaviorManager::onDataChanged);

  functionName("_getBehaviorFrameManagerId", getName(), "get the FrameManagerID. INTERNAL");
  addParam("name", "name of storyloom project");
  setReturn("ID", "");
  bindMethod(this, &ZBBehaviorManager::getBehaviorFrameManagerId);

  functionName("resolveBehaviorName", getName(), "Find out the actual <package>/<behavior> path behind a behavior name.");
  addParam("name", "name of a behavior");
  setReturn("fullPath", "The actual <package>/<behavior> path if found, else an empty string. Throws an ZBERROR if two behavior names "
                        "conflicted.");
  bindMethod(this, &ZBBehaviorManager::resolveBehaviorName);
}

void ZBBehaviorManager::advertiseSignals()
{
  advertiseSignal("behaviorsAdded", behaviorsAdded);
  advertiseSignal("behaviorsRemoved", behaviorsRemoved);
  advertiseSignal("behaviorLoaded", behaviorLoaded);
  advertiseSignal("behaviorStarted", behaviorStarted);
  advertiseSignal("behaviorStopped", behaviorStopped);
  advertiseSignal("behaviorFailed", behaviorFailed);
}

} // namespace ZB::BehaviorManager
