#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tarvik
{

/// Writes figures as Prometheus reads them, in its text format 0.0.4. A
/// family() goes before its samples. Not thread-safe.
class MetricsText
{
public:
  static constexpr std::string_view contentType = "text/plain; version=0.0.4; charset=utf-8";
  using Labels = std::vector<std::pair<std::string_view, std::string_view>>;

  /// `type` is "counter", "gauge" or "histogram".
  void family(const std::string& name, std::string_view type, std::string_view help);
  void sample(const Labels& labels, double value) { line("", labels, value); }
  /// `counts` tells for each of `bounds` how many values were no greater;
  /// `count` how many there were, and `sum` what they come to.
  void histogram(const Labels& labels, std::span<const double> bounds, std::span<const std::uint64_t> counts, double sum,
                 std::uint64_t count);

  const std::string& text() const { return _text; }

private:
  void line(std::string_view suffix, const Labels& labels, double value);

  std::string _family;
  std::string _text;
};

} // namespace Tarvik
