#include <runstatistics.hpp>

#include <numeric>

namespace ZB
{

void RunStatistics::ended(Run::Outcome outcome, double seconds)
{
  ++_outcomes[static_cast<std::size_t>(outcome)];
  _seconds += seconds;
  for (std::size_t i = 0; i < bounds.size(); ++i)
    if (seconds <= bounds[i])
      ++_buckets[i];
}

vu::Value RunStatistics::toValue() const
{
  auto outcomes = vu::Value::object();
  for (auto i = static_cast<std::size_t>(Run::Outcome::Finished); i < _outcomes.size(); ++i)
    outcomes[outcomeName(static_cast<Run::Outcome>(i))] = _outcomes[i];
  auto buckets = vu::Value::array();
  for (std::size_t i = 0; i < bounds.size(); ++i)
    buckets.push_back({{"le", bounds[i]}, {"count", _buckets[i]}});
  const auto count = std::accumulate(_outcomes.begin(), _outcomes.end(), std::uint64_t(0));
  return {{"starts", _starts}, {"outcomes", outcomes}, {"durations", {{"buckets", buckets}, {"sum", _seconds}, {"count", count}}}};
}

} // namespace ZB
