#include "behaviormetrics.hpp"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <vu/log.hpp>
#include <zb/zbproxy.hpp>

namespace Tarvik
{

namespace
{

void writeStates(const ZB::ZBProxy& manager, MetricsText& text)
{
  const auto count = [&manager](const char* method) { return static_cast<double>(manager.call<std::vector<std::string>>(method).size()); };
  // In this order no behavior that is started meanwhile makes a number negative.
  const auto running = count("getRunningBehaviors");
  const auto loaded = count("getLoadedBehaviors");
  text.family("tarvik_behaviors", "gauge", "Installed behaviors, by state: stopped, loaded but not running, running.");
  text.sample({{"state", "stopped"}}, std::max(0.0, count("getInstalledBehaviors") - loaded));
  text.sample({{"state", "loaded"}}, std::max(0.0, loaded - running));
  text.sample({{"state", "running"}}, running);
}

void writeRuns(const ZB::ZBProxy& history, MetricsText& text)
{
  const auto statistics = history.call<vu::Value>("getStatistics");
  text.family("tarvik_behavior_starts_total", "counter", "Behaviors that began to play.");
  text.sample({}, statistics.at("starts").get<double>());
  text.family("tarvik_behavior_ends_total", "counter", "Behaviors that ended, by outcome.");
  for (const auto& [outcome, count] : statistics.at("outcomes").items())
    text.sample({{"outcome", outcome}}, count.get<double>());
  const auto& durations = statistics.at("durations");
  std::vector<double> bounds;
  std::vector<std::uint64_t> counts;
  for (const auto& bucket : durations.at("buckets"))
  {
    bounds.push_back(bucket.at("le").get<double>());
    counts.push_back(bucket.at("count").get<std::uint64_t>());
  }
  text.family("tarvik_behavior_run_duration_seconds", "histogram", "How long the runs that ended lasted.");
  text.histogram({}, bounds, counts, durations.at("sum").get<double>(), durations.at("count").get<std::uint64_t>());
}

} // namespace

void writeBehaviorMetrics(ZB::ZBBroker& broker, MetricsText& text)
{
  if (const auto manager = broker.getProxy("ZBBehaviorManager"))
    writeStates(*manager, text);
  if (const auto history = broker.getProxy("RunHistory"))
    writeRuns(*history, text);
}

void writeLogMetrics(ZB::ZBBroker& broker, MetricsText& text)
{
  text.family("tarvik_log_lines_dropped_total", "counter", "Lines that are not in the log, since whoever reads it did not keep up.");
  text.sample({}, static_cast<double>(vu::log::linesLeftOut()));
  const auto frames = broker.getProxy("ZBFrameManager");
  if (!frames)
    return;
  text.family("tarvik_behavior_lines_dropped_total", "counter", "Lines that behaviors have printed beyond what one may.");
  text.sample({}, frames->call<double>("getLinesLeftOut"));
}

} // namespace Tarvik
