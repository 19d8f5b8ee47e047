#pragma once

#include <array>
#include <cstdint>

#include <run.hpp>

namespace ZB
{

/// What has happened since the start, in numbers that only grow. Not
/// thread-safe.
class RunStatistics
{
public:
  void began() { ++_starts; }
  void ended(Run::Outcome outcome, double seconds);

  /// {"starts": n, "outcomes": {"finished": n, …}, "durations": {"buckets":
  /// [{"le": seconds, "count": n}, …], "sum": seconds, "count": n}}; a bucket
  /// counts all runs that lasted no longer.
  vu::Value toValue() const;

private:
  static constexpr std::array<double, 9> bounds{0.1, 0.5, 1, 5, 15, 60, 300, 900, 3600};

  std::uint64_t _starts = 0;
  std::array<std::uint64_t, static_cast<std::size_t>(Run::Outcome::Lost)> _outcomes{};
  std::array<std::uint64_t, bounds.size()> _buckets{};
  double _seconds = 0;
};

} // namespace ZB
