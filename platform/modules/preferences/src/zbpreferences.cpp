#include <zbpreferences.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include <storage/durablefile.hpp>
#include <vu/log.hpp>
#include <vu/text.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

namespace fs = std::filesystem;

namespace
{

constexpr std::size_t longestName = 128;
constexpr int deepest = 128; // of values in each other, as on the way to a client

bool isNameCharacter(char character)
{
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') || (character >= '0' && character <= '9') ||
         character == '.' || character == '_' || character == '-';
}

/// What is wrong with a file, as the end of a sentence about it.
class Damage : public std::runtime_error
{
public:
  using std::runtime_error::runtime_error;
};

/// Throws Damage, or the filesystem_error of a file that cannot be read.
vu::Value parsed(const fs::path& path)
{
  const std::string advice = "; repair or remove it: ";
  try
  {
    return vu::Value::parse(storage::readFile(path),
                            [&](int depth, vu::Value::parse_event_t, const vu::Value&)
                            {
                              if (depth > deepest)
                                throw Damage(advice + "values stand more than " + std::to_string(deepest) + " deep in each other");
                              return true;
                            });
  }
  catch (const vu::Value::parse_error& error)
  {
    throw Damage(" at byte " + std::to_string(error.byte) + advice + vu::validUtf8(error.what()));
  }
  catch (const vu::Value::exception& error)
  {
    throw Damage(advice + error.what());
  }
}

/// Before a file is replaced: whoever could not read it may be about to write
/// what little it knows.
void keepDamaged(const fs::path& path)
{
  try
  {
    parsed(path);
  }
  catch (const fs::filesystem_error&)
  {
    // There is none, or the write will tell.
  }
  catch (const Damage& damage)
  {
    const auto aside = storage::nameForDamaged(path);
    std::error_code unsupported;
    fs::create_hard_link(path, aside, unsupported);
    if (unsupported)
      fs::rename(path, aside);
    vu::log::error("preferences", "writePrefFile",
                   "the preference file " + path.string() + " is damaged and is kept as " + aside.filename().string() +
                       ", since another one takes its place" + damage.what());
  }
}

/// Why settings cannot be written; empty if they can.
std::string faultOf(const vu::Value& value, int depth = 0)
{
  if (depth > deepest)
    return "values stand more than " + std::to_string(deepest) + " deep in each other";
  if (value.is_number_float() && !std::isfinite(value.get<double>()))
    return "the settings hold a number that is not finite";
  if (value.is_structured())
    for (const auto& element : value)
      if (auto fault = faultOf(element, depth + 1); !fault.empty())
        return fault;
  return {};
}

} // namespace

ZBPreferences::ZBPreferences(std::shared_ptr<ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
{
  const auto& configuration = getParentBroker()->configuration();
  if (!configuration.contains("root") || !configuration["root"].is_string())
    throw ZBError(name, "ZBPreferences", "the broker's configuration names no \"root\" directory to keep the preferences under");
  try
  {
    _directory = fs::path(configuration["root"].get<std::string>()) / "preferences";
    fs::create_directories(_directory);
    if (const auto removed = storage::removeTemporaryFiles(_directory); removed != 0)
      vu::log::info("preferences", "ZBPreferences", "cleared " + std::to_string(removed) + " unfinished writes in " + _directory.string());
  }
  catch (const fs::filesystem_error& error)
  {
    throw ZBError(name, "ZBPreferences", std::string("the preferences folder cannot be used: ") + error.what());
  }

  setModuleDescription("Keeps settings in preference files");

  functionName("readPrefFile", getName(), "Read a preference file");
  addParam("fileName", "name of the file");
  addParam("flag", "of no meaning to this service");
  setReturn("settings", "the file's content");
  setAccess(vu::Role::Operator);
  bindMethod(this, &ZBPreferences::readPrefFile);

  functionName("writePrefFile", getName(), "Replace the content of a preference file, or make it; atomic and durable");
  addParam("fileName", "name of the file");
  addParam("settings", "the content");
  addParam("flag", "of no meaning to this service");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBPreferences::writePrefFile);

  functionName("removePrefFile", getName(), "Remove a preference file");
  addParam("fileName", "name of the file");
  setAccess(vu::Role::Admin);
  bindMethod(this, &ZBPreferences::removePrefFile);
}

ZBPreferences::~ZBPreferences() = default;

fs::path ZBPreferences::pathOf(const char* method, const std::string& fileName) const
{
  if (fileName.empty() || fileName.size() > longestName || fileName.front() == '.' ||
      !std::all_of(fileName.begin(), fileName.end(), isNameCharacter))
    throw ZBError(getName(), method,
                  vu::inQuotes(fileName) + " cannot name a preference file: a name is 1 to " + std::to_string(longestName) +
                      " of letters, digits, \".\", \"_\" and \"-\" and does not begin with a dot");
  return _directory / (fileName + ".json");
}

vu::Value ZBPreferences::readPrefFile(const std::string& fileName, const bool&)
{
  const auto path = pathOf("readPrefFile", fileName);
  try
  {
    return parsed(path);
  }
  catch (const fs::filesystem_error& error)
  {
    if (error.code() == std::errc::no_such_file_or_directory)
      throw ZBError(getName(), "readPrefFile", "there is no preference file \"" + fileName + "\" (" + path.string() + ")");
    throw ZBError(getName(), "readPrefFile", "the preference file \"" + fileName + "\" cannot be read: " + error.what());
  }
  catch (const Damage& damage)
  {
    const auto text = "the preference file " + path.string() + " is damaged" + damage.what();
    vu::log::error("preferences", "readPrefFile", text);
    throw ZBError(getName(), "readPrefFile", text);
  }
}

void ZBPreferences::writePrefFile(const std::string& fileName, const vu::Value& settings, const bool&)
{
  const auto path = pathOf("writePrefFile", fileName);
  try
  {
    if (const auto fault = faultOf(settings); !fault.empty())
      throw ZBError(getName(), "writePrefFile", "the preference file \"" + fileName + "\" was not written: " + fault);
    const auto content = settings.dump(2) + "\n";
    const std::lock_guard lock(_writes);
    keepDamaged(path);
    storage::writeFileDurably(path, content);
  }
  catch (const vu::Value::exception& error)
  {
    throw ZBError(getName(), "writePrefFile",
                  "the preference file \"" + fileName + "\" was not written: the settings are no JSON: " + vu::validUtf8(error.what()));
  }
  catch (const fs::filesystem_error& error)
  {
    throw ZBError(getName(), "writePrefFile", "the preference file \"" + fileName + "\" could not be written: " + error.what());
  }
}

void ZBPreferences::removePrefFile(const std::string& fileName)
{
  const auto path = pathOf("removePrefFile", fileName);
  try
  {
    if (!storage::removeFileDurably(path))
      throw ZBError(getName(), "removePrefFile", "there is no preference file \"" + fileName + "\" (" + path.string() + ")");
  }
  catch (const fs::filesystem_error& error)
  {
    throw ZBError(getName(), "removePrefFile", "the preference file \"" + fileName + "\" could not be removed: " + error.what());
  }
}

} // namespace ZB
