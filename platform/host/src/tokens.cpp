#include "tokens.hpp"

#include <algorithm>
#include <charconv>
#include <ctime>

#include <storage/durablefile.hpp>
#include <vu/conversion.hpp>
#include <vu/session.hpp>
#include <vu/text.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace Tarvik
{

namespace fs = std::filesystem;
using ZB::ZBError;

namespace
{

/// Shorter than a token, so that one taken for its name is refused unread.
constexpr std::size_t longestName = 32;

bool isName(const std::string& text)
{
  const auto allowed = [](unsigned char c) { return c < 0x80 && (std::isalnum(c) || c == '.' || c == '_' || c == '-'); };
  return !text.empty() && text.size() <= longestName && std::isalnum(static_cast<unsigned char>(text.front())) &&
         std::all_of(text.begin(), text.end(), allowed);
}

std::string roleNames(const std::string& quote)
{
  std::string text;
  for (const auto role : vu::roles)
    text += (role == vu::roles.front() ? "" : role == vu::roles.back() ? " or " : ", ") + quote + std::string(roleName(role)) + quote;
  return text;
}

/// The log and the records of packages give these names a meaning of their own.
bool isReserved(const std::string& name) { return name == "local" || name == "host" || name == "system"; }

std::string now()
{
  const auto time = std::time(nullptr);
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  char text[sizeof "2026-03-04T10:20:30Z"];
  std::strftime(text, sizeof text, "%FT%TZ", &parts);
  return text;
}

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

} // namespace

Tokens::Tokens(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, fs::path file, std::shared_ptr<Access> access)
    : ZBModule(std::move(broker), name), _file(std::move(file)), _access(std::move(access))
{
  try
  {
    storage::removeTemporaryFiles(_file.parent_path());
    _records = read();
  }
  catch (const std::exception& error)
  {
    throw ZBError(name, "Tokens",
                  "the tokens in " + _file.string() + " cannot be read: " + vu::validUtf8(error.what()) +
                      "; mend the file, or remove it to start without tokens");
  }
  for (auto& record : _records)
    record.number = _access->add(record.digest, {record.name, record.role});
  bindMethods();
}

void Tokens::bindMethods()
{
  setModuleDescription("Gives out the tokens that let clients in, and takes them back");

  functionName("add", getName(), "Make a token; it is told this once");
  addParam("name", "whose it is: 1 to 32 letters, digits, '.', '_' or '-', a letter or digit first");
  addParam("role", roleNames("\""));
  setReturn("token", "the token");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::add);

  functionName("list", getName(), "Tell which tokens there are, but for the one of the running host");
  setReturn("tokens", "[{name, role, created}], in the order of creation");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::list);

  functionName("remove", getName(), "Take a token back and end the connections that it has opened");
  addParam("name", "whose it is");
  setAccess(vu::Role::Admin);
  setUrgent();
  bindMethod(this, &Tokens::remove);
}

std::vector<Tokens::Record> Tokens::read() const
{
  if (!fs::exists(_file))
    return {};
  const auto content = vu::Value::parse(storage::readFile(_file));
  std::vector<Record> records;
  for (const auto& entry : content.at("tokens"))
  {
    Record record;
    record.name = entry.at("name").get<std::string>();
    const auto role = entry.at("role").get<std::string>();
    const auto twice = std::any_of(records.begin(), records.end(), [&record](const Record& other) { return other.name == record.name; });
    if (!isName(record.name) || isReserved(record.name) || twice)
      throw std::runtime_error(vu::inQuotes(record.name) + (twice ? " stands there twice" : " is no name of a token"));
    if (!vu::roleFromName(role))
      throw std::runtime_error(vu::inQuotes(role) + " is no role");
    record.role = *vu::roleFromName(role);
    record.created = entry.at("created").get<std::string>();
    record.digest = digestFromHexadecimal(entry.at("sha256").get<std::string>());
    records.push_back(std::move(record));
  }
  return records;
}

void Tokens::write(const std::vector<Record>& records) const
{
  auto tokens = vu::Value::array();
  for (const auto& record : records)
    tokens.push_back(
        {{"name", record.name}, {"role", roleName(record.role)}, {"created", record.created}, {"sha256", toHexadecimal(record.digest)}});
  storage::writeFileDurably(_file, vu::Value{{"tokens", tokens}}.dump(2) + "\n");
}

std::string Tokens::add(const std::string& name, const std::string& role)
{
  if (!isName(name))
    throw ZBError(getName(), "add", "a token's name is 1 to 32 letters, digits, '.', '_' or '-', a letter or digit first");
  // The history tells a module's stops by the module's name.
  if (isReserved(name) || getParentBroker()->session()->find(name))
    throw ZBError(getName(), "add", "the name " + vu::inQuotes(name) + " is reserved: take another one");
  const auto wanted = vu::roleFromName(role);
  if (!wanted)
    throw ZBError(getName(), "add", "there is no role " + vu::inQuotes(role) + ": give " + roleNames(""));
  auto token = makeToken();
  const std::lock_guard lock(_mutex);
  if (std::any_of(_records.begin(), _records.end(), [&name](const Record& record) { return record.name == name; }))
    throw ZBError(getName(), "add", "there is a token " + vu::inQuotes(name) + " already: remove it first, or take another name");
  auto records = _records;
  records.push_back({name, *wanted, now(), digestOf(token)});
  try
  {
    write(records);
  }
  catch (const fs::filesystem_error& error)
  {
    throw ZBError(getName(), "add", "the token was not made: " + vu::validUtf8(error.what()));
  }
  records.back().number = _access->add(records.back().digest, {name, *wanted});
  _records = std::move(records);
  return token;
}

vu::Value Tokens::list()
{
  auto result = vu::Value::array();
  const std::lock_guard lock(_mutex);
  for (const auto& record : _records)
    result.push_back({{"name", record.name}, {"role", roleName(record.role)}, {"created", record.created}});
  return result;
}

void Tokens::remove(const std::string& name)
{
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(_mutex);
    auto records = _records;
    const auto found = std::find_if(records.begin(), records.end(), [&name](const Record& record) { return record.name == name; });
    if (found == records.end())
      throw ZBError(getName(), "remove", "there is no token of this name; list() tells which there are");
    number = found->number;
    records.erase(found);
    try
    {
      write(records);
    }
    catch (const fs::filesystem_error& error)
    {
      throw ZBError(getName(), "remove", "the token was not removed and is still good: " + vu::validUtf8(error.what()));
    }
    _records = std::move(records);
  }
  _access->remove(number);
}

} // namespace Tarvik
