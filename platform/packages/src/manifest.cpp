#include <packages/manifest.hpp>

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <pugixml.hpp>

#include <packages/projectreader.hpp>
#include <storage/durablefile.hpp>
#include <vu/text.hpp>

#include "characters.hpp"

namespace packages
{

using vu::inQuotes;

namespace fs = std::filesystem;

namespace
{

constexpr std::size_t longestName = 128;
constexpr std::uintmax_t largestManifest = 16 << 20;

bool isLetterOrDigit(char character)
{
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') || (character >= '0' && character <= '9');
}

/// 1 to 128 of letters, digits, `.`, `_`, `-` and what `more` holds.
bool isName(std::string_view name, std::string_view more = {})
{
  return !name.empty() && name.size() <= longestName &&
         std::all_of(name.begin(), name.end(),
                     [more](char c)
                     { return isLetterOrDigit(c) || c == '.' || c == '_' || c == '-' || more.find(c) != std::string_view::npos; });
}

std::vector<std::string_view> split(std::string_view path)
{
  std::vector<std::string_view> parts;
  std::size_t begin = 0;
  for (auto slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', begin))
  {
    parts.push_back(path.substr(begin, slash - begin));
    begin = slash + 1;
  }
  parts.push_back(path.substr(begin));
  return parts;
}

bool namesProjectFile(std::string_view path) { return split(path).back() == projectFile; }

std::string projectOf(const std::string& behavior)
{
  return behavior == "." ? projectFile : namesProjectFile(behavior) ? behavior : behavior + "/" + projectFile;
}

class ManifestReader
{
public:
  explicit ManifestReader(const std::string& text) : _text(text) {}

  void read() { readPackage(parse()); }

  /// Nothing but what stands in "may": for each behavior of a large package
  /// that is loaded, the whole would be read.
  void readRights()
  {
    for (const auto may : parse().children("may"))
      readRight(may);
  }

  void findProjects(const fs::path& directory) const
  {
    for (const auto& [node, path] : _projects)
      if (std::error_code error; !fs::is_regular_file(directory / path, error))
        fail(node, "the project file " + inQuotes(path) + " is missing in the package");
  }

  vu::PackageInfo::Data& data() { return _data; }

private:
  pugi::xml_node parse()
  {
    if (const auto bad = findBadCharacter(_text))
      fail(static_cast<std::ptrdiff_t>(bad->offset), bad->text);
    const auto result = _document.load_buffer(_text.data(), _text.size(), pugi::parse_default, pugi::encoding_utf8);
    if (!result)
      fail(result.offset, std::string("this is no XML: ") + result.description());
    pugi::xml_node package;
    for (const auto node : _document.children())
      if (node.type() == pugi::node_element)
      {
        if (package || std::string_view(node.name()) != "package")
          fail(node, "expected one element \"package\", found " + inQuotes(node.name()));
        package = node;
      }
    return package;
  }

  [[noreturn]] void fail(std::ptrdiff_t offset, const std::string& message) const
  {
    const auto position = std::clamp<std::ptrdiff_t>(offset, 0, static_cast<std::ptrdiff_t>(_text.size()));
    const auto line = 1 + std::count(_text.begin(), _text.begin() + position, '\n');
    throw FaultyFile(std::string(manifestFile) + ", line " + std::to_string(line) + ", offset " + std::to_string(position) + ": " + message,
                     {manifestFile, static_cast<std::size_t>(line), message});
  }
  [[noreturn]] void fail(const pugi::xml_node& node, const std::string& message) const { fail(node.offset_debug(), message); }

  void readPackage(const pugi::xml_node& package)
  {
    checkAttributes(package, {"uuid", "version"});
    _data.uuid = requiredAttribute(package, "uuid");
    if (!isName(_data.uuid) || _data.uuid.front() == '.')
      fail(package,
           "the uuid " + inQuotes(_data.uuid) + " is not 1 to 128 of letters, digits, \".\", \"_\" and \"-\" that do not begin with a dot");
    if (_data.uuid == "User" || _data.uuid == "System")
      fail(package, "the uuid " + inQuotes(_data.uuid) + " is reserved; choose another one");
    _data.version = attribute(package, "version");
    for (const auto node : elements(package, {"name", "description", "behavior", "may"}))
    {
      const std::string_view element = node.name();
      if (element == "behavior")
        readBehavior(node);
      else if (element == "may")
        readRight(node);
      else
      {
        auto& texts = element == "name" ? _data.names : _data.descriptions;
        auto [locale, text] = localizedText(node);
        if (!texts.emplace(locale, std::move(text)).second)
          fail(node, "there is another " + inQuotes(element) + " of the locale " + inQuotes(locale));
      }
    }
  }

  void readRight(const pugi::xml_node& may)
  {
    checkAttributes(may, {"call"});
    elements(may, {});
    const auto call = requiredAttribute(may, "call");
    try
    {
      (void)Rights({call});
    }
    catch (const std::invalid_argument& error)
    {
      fail(may, error.what());
    }
    if (_rights.insert(call).second)
      _data.may.push_back(call);
  }

  void readBehavior(const pugi::xml_node& behavior)
  {
    checkAttributes(behavior, {"path", "nature"});
    const auto path = requiredAttribute(behavior, "path");
    checkPath(behavior, path);
    if (!_paths.insert(path).second)
      fail(behavior, "the path " + inQuotes(path) + " stands in the package twice");
    std::map<std::string, std::list<std::string>> tags;
    for (const auto node : elements(behavior, {"tag"}))
    {
      auto [locale, text] = localizedText(node);
      if (text.empty())
        fail(node, "the tag is empty");
      tags[locale].push_back(std::move(text));
    }
    _data.behaviors.emplace_back(path, attribute(behavior, "nature"), std::move(tags));
    _projects.emplace_back(behavior, projectOf(path));
  }

  void checkPath(const pugi::xml_node& node, const std::string& path) const
  {
    if (path == ".")
      return;
    for (const auto part : split(path))
      if (!isName(part, " ") || part == "." || part == "..")
        fail(node, "the path " + inQuotes(path) +
                       " is neither \".\" nor relative with parts of 1 to 128 letters, digits, spaces, \".\", \"_\" and \"-\": see " +
                       inQuotes(part));
    if (path.find(projectFile) != std::string::npos && !namesProjectFile(path))
      fail(node, "the path " + inQuotes(path) + " contains \"" + projectFile + "\" but does not name such a file; rename the folder");
  }

  void checkAttributes(const pugi::xml_node& node, std::initializer_list<std::string_view> known) const
  {
    std::set<std::string_view> seen;
    for (const auto& found : node.attributes())
    {
      if (std::find(known.begin(), known.end(), found.name()) == known.end())
        fail(node, "the element " + inQuotes(node.name()) + " has no attribute " + inQuotes(found.name()));
      if (!seen.insert(found.name()).second)
        fail(node, "the attribute " + inQuotes(found.name()) + " is given twice");
    }
  }

  /// Empty when it is not given.
  static std::string attribute(const pugi::xml_node& node, const char* name) { return node.attribute(name).value(); }

  std::string requiredAttribute(const pugi::xml_node& node, const char* name) const
  {
    if (!node.attribute(name))
      fail(node, "the element " + inQuotes(node.name()) + " lacks the attribute " + inQuotes(name));
    return attribute(node, name);
  }

  /// The children; text between them and unknown ones are faults.
  std::vector<pugi::xml_node> elements(const pugi::xml_node& parent, std::initializer_list<std::string_view> known) const
  {
    std::vector<pugi::xml_node> result;
    for (const auto node : parent.children())
    {
      if (node.type() != pugi::node_element)
        fail(node, "the element " + inQuotes(parent.name()) + " holds no text");
      if (std::find(known.begin(), known.end(), node.name()) == known.end())
        fail(node, "the element " + inQuotes(node.name()) + " is unknown in " + inQuotes(parent.name()));
      result.push_back(node);
    }
    return result;
  }

  /// Locale and text, without the white space around it.
  std::pair<std::string, std::string> localizedText(const pugi::xml_node& node) const
  {
    checkAttributes(node, {"locale"});
    auto locale = requiredAttribute(node, "locale");
    if (locale.empty())
      fail(node, "the locale is empty");
    std::string text;
    for (const auto child : node.children())
    {
      if (child.type() == pugi::node_element)
        fail(child, "the element " + inQuotes(child.name()) + " is unknown in " + inQuotes(node.name()));
      text += child.value();
    }
    const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    text.erase(std::find_if_not(text.rbegin(), text.rend(), isSpace).base(), text.end());
    text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), isSpace));
    return {std::move(locale), std::move(text)};
  }

  const std::string& _text;
  pugi::xml_document _document;
  vu::PackageInfo::Data _data;
  std::set<std::string> _paths;
  std::set<std::string> _rights;
  std::vector<std::pair<pugi::xml_node, std::string>> _projects;
};

/// None where there is no manifest.
std::optional<std::string> manifestText(const fs::path& directory)
{
  try
  {
    return storage::readFile(directory / manifestFile, largestManifest);
  }
  catch (const fs::filesystem_error& error)
  {
    if (error.code() == std::errc::no_such_file_or_directory)
      return std::nullopt;
    throw PackageError(std::string(manifestFile) + " cannot be read: " + error.code().message());
  }
}

} // namespace

vu::PackageInfo::Data readManifest(const fs::path& directory)
{
  const auto text = manifestText(directory);
  if (!text)
    throw PackageError(std::string("there is no ") + manifestFile + " at the top of the package");
  ManifestReader reader(*text);
  reader.read();
  reader.findProjects(directory);
  return std::move(reader.data());
}

Rights readRights(const fs::path& directory)
{
  const auto text = manifestText(directory);
  if (!text)
    return {};
  ManifestReader reader(*text);
  reader.readRights();
  return Rights(reader.data().may);
}

std::vector<Fault> projectFaults(const fs::path& directory, const vu::PackageInfo& package)
{
  std::vector<Fault> faults;
  for (const auto& behavior : package.behaviors())
  {
    const auto project = projectOf(behavior.path());
    try
    {
      readProject(directory.string(), project);
    }
    catch (const FaultyFile& faulty)
    {
      faults.push_back(faulty.fault());
    }
    catch (const PackageError& error)
    {
      faults.push_back({project, 1, error.description()});
    }
  }
  return faults;
}

vu::Value toValue(const std::vector<Fault>& faults)
{
  auto values = vu::Value::array();
  for (const auto& [file, line, text] : faults)
    values.push_back({{"file", file}, {"line", line}, {"text", vu::validUtf8(text)}});
  return values;
}

} // namespace packages
