#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <boost/thread/mutex.hpp>

#include <vu/packageinfo.hpp>

namespace ZB::BehaviorManager
{

/// The packages that are installed, in the order of their arrival, and what
/// follows from them: names, directories, tags and nature of behaviors. What
/// begins with x serves the module alone, the rest answers its clients.
///
/// Every question is answered from one consistent state of the packages. The
/// errors are ZBErrors of the module. Thread-safe; nothing is called under the
/// lock but the source that fill() is given.
class Catalogue
{
public:
  /// Selects packages by their installer; a bit set.
  enum InstallerFlag
  {
    InstallerSystem = 1, ///< installed by "system"
    InstallerUser = 2,   ///< installed by anybody else
    InstallerAll = 3
  };

  /// Numbers the arrivals of packages, never reused: one that is removed and
  /// installed again is another installation, in the same directory or not.
  using Installation = std::uint64_t;
  static constexpr Installation noInstallation = 0;

  /// Takes what `source` gives in place of all packages; changes that come
  /// meanwhile wait, and are made to its answer.
  void fill(const std::function<std::vector<vu::PackageInfo>()>& source);
  /// noInstallation, and no change, when there is a package of that uuid.
  Installation add(const vu::PackageInfo& package);
  /// False when there is no such package.
  bool remove(const std::string& uuid);

  /// A package that is a behavior itself is listed by its bare uuid.
  std::vector<std::string> xGetBehaviorsInPackages(InstallerFlag flags) const;
  static bool xIsSystemPackage(const vu::PackageInfo& package);
  /// Empty when there is no such behavior; a path that several packages have
  /// is a ZBError. The outputs may be null; where nothing is found they become
  /// empty and ".".
  std::string xResolveBehaviorName(const std::string& name, std::string* package = nullptr, std::string* behavior = nullptr) const;
  /// The directory of a behavior by its installed name; empty when there is none.
  std::string xFindBehavior(const std::string& name) const;
  /// Empty when there is no such package.
  std::string getPackageDir(const std::string& uuid, Installation* installation = nullptr) const;

  bool isBehaviorInstalled(const std::string& name) const;
  /// An empty name stands for all behaviors.
  std::vector<std::string> getBehaviorTags(const std::string& name) const;
  std::vector<std::string> getBehaviorsByTag(const std::string& tag) const;
  std::string getBehaviorNature(const std::string& name) const;

private:
  struct Package
  {
    vu::PackageInfo info;
    Installation installation;
  };

  std::vector<Package> _packages; // in the order of arrival
  Installation _lastInstallation = noInstallation;
  mutable boost::mutex _mutex; // guards the members above
};

} // namespace ZB::BehaviorManager
