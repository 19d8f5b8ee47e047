#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <vu/value.hpp>

namespace ZB
{

/// One time that a behavior played.
struct Run
{
  enum class Outcome
  {
    Running,
    Finished,
    Failed,
    Stopped,  ///< because somebody asked for it
    Removed,  ///< with its package
    Shutdown, ///< with the host
    Lost      ///< with a host that did not live to write it down
  };

  std::int64_t id = 0; ///< grows with every run of a root
  std::string behavior;
  std::string instance; ///< the frame manager's id
  std::string startedBy;
  std::int64_t begin = 0;          ///< in ms since the epoch, UTC
  std::optional<std::int64_t> end; ///< the same; none while it runs. Of a lost run, when its host was last heard of
  Outcome outcome = Outcome::Running;
  std::string step;    ///< where it failed
  std::string message; ///< why it failed, or what of it could not be ended
  std::string stoppedBy;

  /// Why it ended, for a person; empty while it runs.
  std::string reason() const;
  vu::Value toValue() const;
};

/// "running", "finished" and so on.
const char* outcomeName(Run::Outcome outcome);
/// Throws std::invalid_argument for any other text.
Run::Outcome outcomeOf(const std::string& name);

} // namespace ZB
