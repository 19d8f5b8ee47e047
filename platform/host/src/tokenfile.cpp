#include "tokenfile.hpp"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <stdexcept>

#include <boost/algorithm/string/predicate.hpp>

#include <storage/durablefile.hpp>
#include <vu/conversion.hpp>
#include <vu/text.hpp>

namespace Tarvik
{

namespace fs = std::filesystem;

namespace
{

constexpr std::size_t longestName = 32;
constexpr const char* timeFormat = "%Y-%m-%dT%H:%M:%SZ";

TokenDigest digestFromHexadecimal(const std::string& text)
{
  TokenDigest digest{};
  bool good = text.size() == 2 * digest.size();
  for (std::size_t i = 0; good && i < digest.size(); ++i)
  {
    const char* const end = text.data() + 2 * i + 2;
    good = std::from_chars(end - 2, end, digest[i], 16).ptr == end;
  }
  if (!good)
    throw std::runtime_error("\"sha256\" holds no SHA-256 in hexadecimal digits");
  return digest;
}

TokenRecord::Time timeFrom(const vu::Value& value)
{
  const auto text = value.get<std::string>();
  std::tm parts{};
  const char* const rest = ::strptime(text.c_str(), timeFormat, &parts);
  if (!rest || *rest)
    throw std::runtime_error(vu::inQuotes(text) + " is no time");
  return Access::Clock::from_time_t(::timegm(&parts));
}

std::optional<TokenRecord::Time> timeIn(const vu::Value& entry, const char* key)
{
  return entry.contains(key) ? std::optional(timeFrom(entry.at(key))) : std::nullopt;
}

} // namespace

bool TokenFile::isName(const std::string& text)
{
  const auto allowed = [](unsigned char c) { return c < 0x80 && (std::isalnum(c) || c == '.' || c == '_' || c == '-'); };
  return !text.empty() && text.size() <= longestName && std::isalnum(static_cast<unsigned char>(text.front())) &&
         std::all_of(text.begin(), text.end(), allowed);
}

bool TokenFile::isReserved(const std::string& name)
{
  constexpr const char* reserved[] = {"local", "host", "system", "admin", "tarvik"};
  return std::any_of(std::begin(reserved), std::end(reserved), [&name](const char* one) { return boost::iequals(name, one); });
}

std::vector<TokenRecord> TokenFile::read(const fs::path& file)
{
  if (!fs::exists(file))
    return {};
  const auto content = vu::Value::parse(storage::readFile(file));
  std::vector<TokenRecord> records;
  for (const auto& entry : content.at("tokens"))
  {
    TokenRecord record;
    record.name = entry.at("name").get<std::string>();
    const auto role = entry.at("role").get<std::string>();
    const auto twice = std::any_of(records.begin(), records.end(), [&record](const auto& other) { return other.name == record.name; });
    if (!isName(record.name) || isReserved(record.name) || twice)
      throw std::runtime_error(vu::inQuotes(record.name) + (twice ? " stands there twice" : " is no name of a token"));
    if (!vu::roleFromName(role))
      throw std::runtime_error(vu::inQuotes(role) + " is no role");
    record.role = *vu::roleFromName(role);
    record.created = timeFrom(entry.at("created"));
    record.end = timeIn(entry, "expires");
    record.lastUse = timeIn(entry, "lastUsed");
    record.digest = digestFromHexadecimal(entry.at("sha256").get<std::string>());
    records.push_back(std::move(record));
  }
  return records;
}

void TokenFile::write(const fs::path& file, const std::vector<TokenRecord>& records)
{
  auto tokens = vu::Value::array();
  for (const auto& record : records)
  {
    vu::Value entry{{"name", record.name},
                    {"role", roleName(record.role)},
                    {"created", timeValue(record.created)},
                    {"sha256", toHexadecimal(record.digest)}};
    if (record.end)
      entry["expires"] = timeValue(record.end);
    if (record.lastUse)
      entry["lastUsed"] = timeValue(record.lastUse);
    tokens.push_back(std::move(entry));
  }
  storage::writeFileDurably(file, vu::Value{{"tokens", tokens}}.dump(2) + "\n");
}

vu::Value TokenFile::timeValue(const std::optional<TokenRecord::Time>& time)
{
  if (!time)
    return nullptr;
  const auto seconds = Access::Clock::to_time_t(*time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[64];
  return std::string(text, std::strftime(text, sizeof text, timeFormat, &parts));
}

} // namespace Tarvik
