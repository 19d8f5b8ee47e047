#include <cli/text.hpp>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iomanip>
#include <map>
#include <sstream>

#include <vu/value.hpp>

namespace Tarvik
{

namespace
{

/// Code points, which is what columns count; combining and wide characters
/// are not told apart.
std::size_t width(const std::string& text)
{
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string timeText(std::chrono::system_clock::time_point time, bool utc)
{
  using namespace std::chrono;
  const auto seconds = system_clock::to_time_t(time);
  const auto milliseconds = duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm parts{};
  utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, utc ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S") << '.' << std::setw(3) << std::setfill('0') << milliseconds;
  return text.str() + (utc ? "Z" : "");
}

/// Invalid UTF-8, which a program's output may hold, is replaced, not refused.
std::string compact(const vu::Value& value) { return value.dump(-1, ' ', false, vu::Value::error_handler_t::replace); }

std::string signature(const vu::MethodDescription& method)
{
  std::vector<std::string> parameters;
  for (const auto& parameter : method.parameters)
    parameters.push_back(parameter.name.empty() ? parameter.type : parameter.name + ": " + parameter.type);
  return method.name + "(" + joined(parameters) + ")" + (method.returns ? " -> " + method.returns->type : std::string());
}

} // namespace

vu::Value argumentFromText(const std::string& text)
{
  auto value = vu::Value::parse(text, nullptr, false);
  return value.is_discarded() ? vu::Value(text) : value;
}

std::string formatTable(std::vector<std::vector<std::string>> rows)
{
  for (auto& row : rows)
    for (auto& cell : row)
      cell = singleLine(cell);
  std::vector<std::size_t> widths;
  for (const auto& row : rows)
  {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], width(row[column]));
  }
  std::string text;
  for (const auto& row : rows)
  {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column)
      line += row[column] + std::string(widths[column] - width(row[column]) + 2, ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

std::string joined(const std::vector<std::string>& texts)
{
  std::string result;
  for (const auto& text : texts)
    result += (result.empty() ? "" : ", ") + text;
  return result;
}

std::string formatDuration(std::chrono::milliseconds duration)
{
  const auto tenths = duration.count() / 100;
  const auto seconds = tenths / 10;
  const auto two = [](auto large, const char* largeUnit, auto small, const char* smallUnit)
  { return std::to_string(large) + largeUnit + std::to_string(small) + smallUnit; };
  if (seconds < 60)
    return two(seconds, ".", tenths % 10, " s");
  if (seconds < 3600)
    return two(seconds / 60, " min ", seconds % 60, " s");
  if (seconds < 86400)
    return two(seconds / 3600, " h ", seconds / 60 % 60, " min");
  return two(seconds / 86400, " d ", seconds / 3600 % 24, " h");
}

std::optional<std::chrono::seconds> parseDuration(const std::string& text)
{
  std::uint32_t number = 0; // times a day, it is far from overflowing
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest + 1 != end || number == 0)
    return std::nullopt;
  const std::map<char, std::int64_t> units{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
  const auto unit = units.find(*rest);
  return unit == units.end() ? std::nullopt : std::optional(std::chrono::seconds(number * unit->second));
}

std::string singleLine(const std::string& text)
{
  auto line = text;
  std::replace_if(
      line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, ' ');
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::string formatValue(const vu::Value& value)
{
  if (value.is_null())
    return {};
  return (value.is_string() ? value.get<std::string>() : value.dump(2, ' ', false, vu::Value::error_handler_t::replace)) + "\n";
}

std::string formatDescription(const vu::ObjectDescription& description)
{
  std::string text = description.name + "\n";
  if (!description.description.empty())
    text += "  " + singleLine(description.description) + "\n";
  if (!description.methods.empty())
    text += "\nmethods\n";
  for (const auto& method : description.methods)
  {
    text += "  " + signature(method) + "\n";
    if (!method.description.empty())
      text += "      " + singleLine(method.description) + "\n";
    for (const auto& parameter : method.parameters)
      if (!parameter.description.empty())
        text += "      " + parameter.name + ": " + singleLine(parameter.description) + "\n";
    if (method.returns && !method.returns->description.empty())
      text += "      returns " + singleLine(method.returns->description) + "\n";
  }
  if (!description.signals.empty())
    text += "\nsignals\n";
  for (const auto& signal : description.signals)
    text += "  " + signal.name + "(" + joined(signal.arguments) + ")\n";
  return text;
}

std::string formatNotification(const std::string& method, const vu::Value& params, std::chrono::system_clock::time_point time)
{
  const auto start = timeText(time, false) + "  ";
  if (method == "event")
    return start + "event   " + singleLine(params.value("key", "")) + "  " + compact(params.value("value", vu::Value()));
  std::vector<std::string> arguments;
  for (const auto& argument : params.value("arguments", vu::Value::array()))
    arguments.push_back(compact(argument));
  return start + "signal  " + params.value("service", "") + "." + params.value("signal", "") + "(" + joined(arguments) + ")";
}

vu::Value notificationValue(const std::string& method, const vu::Value& params, std::chrono::system_clock::time_point time)
{
  vu::Value value{{"time", timeText(time, true)}, {"kind", method}};
  for (const auto& [key, member] : params.items())
    if (key != "link")
      value[key] = member;
  return value;
}

} // namespace Tarvik
