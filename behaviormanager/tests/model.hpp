#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <vu/packageinfo.hpp>
#include <vu/value.hpp>

#include "standins.hpp"

namespace ZB::BehaviorManager
{

/// What the module and the frame manager between them are expected to do,
/// written down as plainly as possible: one thread, no locks, no signals. What
/// would be announced or asked of the frame manager stands in `announced`.
class Model
{
public:
  using Script = StandInFrameManager::Script;

  struct Run
  {
    std::string name; // as the client wrote it
    std::string path;
    std::string id;
    std::optional<std::string> outcome; // of one that has ended: the error's text
  };

  /// The result as JSON, or "module.method: description" of the error. A run's
  /// result is its number in runs().
  std::string call(const std::string& method, const std::string& argument);
  void install(const vu::PackageInfo& package);
  void remove(const vu::PackageInfo& package);
  /// An instance ends by itself.
  void end(const std::string& id, const std::optional<std::string>& failure);
  /// The frame manager's reports of the ends since the last time, and what follows from them.
  void report();

  std::set<std::string> behaviorsToPlay() const;
  /// Also one that its package's removal did not take along.
  bool holdsInstance(const vu::PackageInfo& package) const;
  std::size_t connections() const { return 2 * _connected.size(); }
  const std::vector<Run>& runs() const { return _runs; }
  const std::map<std::string, std::string>& instances() const { return _instances; }
  const std::vector<vu::PackageInfo>& packages() const { return _packages; }

  std::vector<std::string> announced;
  std::map<std::string, Script> scripts;
  std::set<std::string> refusedToLoad;
  std::set<std::string> missingDirectories; // of installed behaviors
  std::optional<std::string> defaults;      // the preference file's value

private:
  struct Record
  {
    int state = 0;
    std::string id;
  };
  struct Resolved
  {
    std::string path;
    std::string package;
    std::string behavior = ".";
  };

  Resolved resolve(const std::string& name) const;
  bool isInstalled(const std::string& name) const;
  std::vector<std::string> listed(bool system, bool user, const std::string& prefix = {}) const;
  std::vector<std::string> tags(const std::string& name) const;
  std::vector<std::string> tagged(const std::string& tag) const;
  std::string nature(const std::string& name) const;
  std::vector<std::string> inState(bool running) const;
  void setState(const std::string& path, int state);
  void setId(const std::string& path, const std::string& id);
  bool load(const std::string& name);
  void start(const std::string& name);
  std::size_t run(const std::string& name);
  void stop(const std::string& name);
  void unload(const std::string& path);
  void finish(Run& run, const std::optional<std::string>& failure);
  std::set<std::string> readDefaults() const;
  void changeDefault(const std::string& name, bool add);
  void playDefaults();
  void signal(const std::string& name, const vu::Value& arguments);
  void event(const std::string& key, const vu::Value& value);

  std::vector<vu::PackageInfo> _packages;
  std::map<std::string, Record> _records;
  std::map<std::string, std::string> _index;     // frame manager id to path
  std::map<std::string, std::string> _instances; // held by the frame manager: id to path
  std::set<std::string> _connected;              // ids of plays
  std::vector<std::pair<std::string, std::optional<std::string>>> _ended;
  std::vector<Run> _runs;
  int _lastId = 0;
};

} // namespace ZB::BehaviorManager
