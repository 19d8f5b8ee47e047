#pragma once

/// Names that the behavior manager's clients meet.
namespace ZB::BehaviorManager
{

/// Legacy prefixes of behavior names, by installer.
inline constexpr const char* systemBehaviorPrefix = "System/";
inline constexpr const char* userBehaviorPrefix = "User/";

/// The installer of system packages.
inline constexpr const char* systemPackage = "system";

/// Keys of the memory events that the module declares and raises. The key of
/// the running behaviors carries no module prefix: clients know it so.
inline constexpr const char* behaviorAddedKey = "ZBBehaviorManager/BehaviorAdded";
inline constexpr const char* behaviorsAddedKey = "ZBBehaviorManager/BehaviorsAdded";
inline constexpr const char* behaviorUpdatedKey = "ZBBehaviorManager/BehaviorUpdated";
inline constexpr const char* behaviorRemovedKey = "ZBBehaviorManager/BehaviorRemoved";
inline constexpr const char* behaviorsRemovedKey = "ZBBehaviorManager/BehaviorsRemoved";
inline constexpr const char* behaviorsRunKey = "BehaviorsRun";
inline constexpr const char* behaviorsLoadedKey = "ZBBehaviorManager/BehaviorsLoaded";
inline constexpr const char* behaviorFailedKey = "ZBBehaviorManager/BehaviorFailed";

} // namespace ZB::BehaviorManager
