#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <vu/value.hpp>

/// A project as it stands in its file (docs/packages.md describes the format).
/// Nothing here changes once it has been read.
namespace packages
{

struct ProjectStep;
using Steps = std::vector<ProjectStep>;

struct EventStep
{
  std::string key;
  vu::Value value;
};

struct WaitStep
{
  std::chrono::nanoseconds duration;
};

struct CallStep
{
  std::string service;
  std::string method;
  vu::Value arguments; ///< an array
};

struct ProgramStep
{
  std::vector<std::string> words; ///< the program, then its arguments
  std::optional<std::chrono::nanoseconds> timeout;
};

/// The project itself, `sequence` and `repeat`.
struct SequenceStep
{
  Steps steps;
  std::optional<std::uint64_t> count = 1; ///< none: for ever
};

struct ParallelStep
{
  Steps steps;
};

struct LogStep
{
  std::string message;
};

struct FailStep
{
  std::string reason; ///< not empty
};

struct ProjectStep
{
  std::variant<EventStep, WaitStep, CallStep, ProgramStep, SequenceStep, ParallelStep, LogStep, FailStep> action;
  /// What it is and where it stands: "call ZBMemory.getData (hello/behavior.xar:12)".
  std::string title;
};

struct Project
{
  std::string name;
  ProjectStep root;                ///< a sequence
  std::filesystem::path directory; ///< of the project file; where its programs run
};

} // namespace packages
