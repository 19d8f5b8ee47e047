#include <run.hpp>

#include <iterator>
#include <stdexcept>

namespace ZB
{

namespace
{
/// In the order of Run::Outcome.
constexpr const char* names[] = {"running", "finished", "failed", "stopped", "removed", "shutdown", "lost"};
} // namespace

const char* outcomeName(Run::Outcome outcome) { return names[static_cast<std::size_t>(outcome)]; }

Run::Outcome outcomeOf(const std::string& name)
{
  for (std::size_t i = 0; i < std::size(names); ++i)
    if (name == names[i])
      return static_cast<Run::Outcome>(i);
  throw std::invalid_argument("there is no outcome '" + name + "'");
}

std::string Run::reason() const
{
  switch (outcome)
  {
  case Outcome::Running:
    break;
  case Outcome::Finished:
    return "ended by itself";
  case Outcome::Failed:
    return "failed at " + step + ": " + message;
  case Outcome::Stopped:
    return (stoppedBy.empty() ? "stopped" : "stopped by " + stoppedBy) + (message.empty() ? "" : "; " + message);
  case Outcome::Removed:
    return "package removed";
  case Outcome::Shutdown:
    return "host shut down";
  case Outcome::Lost:
    return "the host ended without a word";
  }
  return {};
}

vu::Value Run::toValue() const
{
  return {{"id", id},
          {"behavior", behavior},
          {"instance", instance},
          {"startedBy", startedBy},
          {"begin", begin},
          {"end", end ? vu::Value(*end) : vu::Value()},
          {"outcome", outcomeName(outcome)},
          {"step", step},
          {"message", message},
          {"stoppedBy", stoppedBy},
          {"reason", reason()}};
}

} // namespace ZB
