#include <behaviormanager/behaviormanager.hpp>
#include <zb/modulelibrary.hpp>

ZB_MODULE_LIBRARY(ZB::BehaviorManager::ZBBehaviorManager, "ZBBehaviorManager")
