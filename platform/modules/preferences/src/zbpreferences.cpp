#include <zbpreferences.hpp>

#include <algorithm>
#include <cmath>
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
    return vu::Value::parse(storage::readFile(path),
                            [&](int depth, vu::Value::parse_event_t, const vu::Value&)
                            {
                              if (depth > deepest)
                                throw ZBError(getName(), "readPrefFile",
                                              "the preference file " + path.string() +
                                                  " is damaged; repair or remove it: values stand more than " + std::to_string(deepest) +
                                                  " deep in each other");
                              return true;
                            });
  }
  catch (const fs::filesystem_error& error)
  {
    if (error.code() == std::errc::no_such_file_or_directory)
      throw ZBError(getName(), "readPrefFile", "there is no preference file \"" + fileName + "\" (" + path.string() + ")");
    throw ZBError(getName(), "readPrefFile", "the preference file \"" + fileName + "\" cannot be read: " + error.what());
  }
  catch (const vu::Value::parse_error& error)
  {
    throw ZBError(getName(), "readPrefFile",
                  "the preference file " + path.string() + " is damaged at byte " + std::to_string(error.byte) +
                      "; repair or remove it: " + vu::validUtf8(error.what()));
  }
  catch (const vu::Value::exception& error)
  {
    throw ZBError(getName(), "readPrefFile", "the preference file " + path.string() + " is damaged; repair or remove it: " + error.what());
  }
}

void ZBPreferences::writePrefFile(const std::string& fileName, const vu::Value& settings, const bool&)
{
  const auto path = pathOf("writePrefFile", fileName);
  try
  {
    if (const auto fault = faultOf(settings); !fault.empty())
      throw ZBError(getName(), "writePrefFile", "the preference file \"" + fileName + "\" was not written: " + fault);
    storage::writeFileDurably(path, settings.dump(2) + "\n");
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
