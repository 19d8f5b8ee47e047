#include <gateway/metricstext.hpp>

#include <charconv>

namespace Tarvik
{

namespace
{

std::string number(double value)
{
  char digits[32];
  const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), value);
  return {digits, end};
}

std::string escaped(std::string_view text, bool quotes)
{
  std::string result;
  for (const char c : text)
    if (c == '\n')
      result += "\\n";
    else
      result += (c == '\\' || (quotes && c == '"') ? "\\" : "") + std::string(1, c);
  return result;
}

} // namespace

void MetricsText::family(const std::string& name, std::string_view type, std::string_view help)
{
  _family = name;
  _text += "# HELP " + name + " " + escaped(help, false) + "\n# TYPE " + name + " " + std::string(type) + "\n";
}

void MetricsText::histogram(const Labels& labels, std::span<const double> bounds, std::span<const std::uint64_t> counts, double sum,
                            std::uint64_t count)
{
  auto withBound = labels;
  withBound.emplace_back("le", "");
  for (std::size_t i = 0; i < bounds.size(); ++i)
  {
    const auto bound = number(bounds[i]);
    withBound.back().second = bound;
    line("_bucket", withBound, static_cast<double>(counts[i]));
  }
  withBound.back().second = "+Inf";
  line("_bucket", withBound, static_cast<double>(count));
  line("_sum", labels, sum);
  line("_count", labels, static_cast<double>(count));
}

void MetricsText::line(std::string_view suffix, const Labels& labels, double value)
{
  _text.append(_family).append(suffix);
  for (std::size_t i = 0; i < labels.size(); ++i)
    _text.append(i == 0 ? "{" : ",").append(labels[i].first).append("=\"").append(escaped(labels[i].second, true)).append("\"");
  _text.append(labels.empty() ? " " : "} ").append(number(value)).append("\n");
}

} // namespace Tarvik
