#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <packages/project.hpp>
#include <packages/rights.hpp>

namespace ZB::FrameManager
{

/// What a package's directory says of a behavior.
struct LoadedBehavior
{
  packages::Project project;
  packages::Rights rights;
};

/// Reads projects, and what their packages ask for, within a time limit. A file system that does not answer (a
/// network that is down) can hold a reader for ever, and nothing takes that
/// thread back; so it is none of the caller's, there are only so many, and what
/// a reader brings too late is dropped. Thread-safe.
class ProjectLoader
{
public:
  using Read = std::function<LoadedBehavior(const std::string& packageDirectory, const std::string& projectFile)>;
  /// How many files are read at the same time; others wait for their turn.
  static constexpr std::size_t readers = 16;

  explicit ProjectLoader(std::chrono::milliseconds limit, Read read = {});

  /// See readProject() and readRights(), whose errors come out. A std::runtime_error, too, when
  /// the limit has passed, and at once when the loader has been closed.
  std::shared_ptr<const LoadedBehavior> load(const std::string& packageDirectory, const std::string& projectFile);

  void close();

private:
  struct State;
  const std::chrono::milliseconds _limit;
  const Read _read;
  const std::shared_ptr<State> _state; ///< shared with the readers
};

} // namespace ZB::FrameManager
