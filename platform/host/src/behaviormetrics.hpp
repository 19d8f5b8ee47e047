#pragma once

#include <gateway/metricstext.hpp>
#include <zb/zbbroker.hpp>

namespace Tarvik
{

/// Writes what the behavior manager and the run history tell of behaviors; a
/// service that is not there is left out.
void writeBehaviorMetrics(ZB::ZBBroker& broker, MetricsText& text);

/// Writes how much of what was said nobody was told.
void writeLogMetrics(ZB::ZBBroker& broker, MetricsText& text);

} // namespace Tarvik
