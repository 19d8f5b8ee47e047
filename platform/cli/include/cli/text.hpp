#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <vu/description.hpp>
#include <vu/valuefwd.hpp>

/// What the commands read and write, as text.
namespace Tarvik
{

/// An argument of a call: JSON where the text is JSON, else the text itself as
/// a string.
vu::Value argumentFromText(const std::string& text);

/// Columns as wide as their widest cell, two spaces apart, no space at the end
/// of a line; a newline after every row. The first row is the heading.
std::string formatTable(std::vector<std::vector<std::string>> rows);

/// The texts with ", " between them.
std::string joined(const std::vector<std::string>& texts);

/// In its two largest units: "0.2 s", "45.0 s", "2 min 5 s", "1 h 2 min", "3 d 4 h".
std::string formatDuration(std::chrono::milliseconds duration);

/// "45s", "10m", "12h" or "30d"; none when the text is none of these, or means
/// no time at all.
std::optional<std::chrono::seconds> parseDuration(const std::string& text);

/// In one line: line ends and other control characters become spaces.
std::string singleLine(const std::string& text);

/// For people: a string bare, null as nothing, all else as indented JSON.
std::string formatValue(const vu::Value& value);

/// A service's description for people.
std::string formatDescription(const vu::ObjectDescription& description);

/// A notification of the wire ("signal" or "event" and its params) as a line
/// for people, with the local time of day, or as an object for programs, with
/// the time in UTC. Both without line end.
std::string formatNotification(const std::string& method, const vu::Value& params, std::chrono::system_clock::time_point time);
vu::Value notificationValue(const std::string& method, const vu::Value& params, std::chrono::system_clock::time_point time);

} // namespace Tarvik
