#include <packages/projectreader.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string_view>

#include <pugixml.hpp>

#include <packages/packageerror.hpp>
#include <packages/projectfile.hpp>
#include <packages/shellwords.hpp>

#include "characters.hpp"

namespace packages
{

namespace
{

std::string quote(std::string_view text)
{
  constexpr std::size_t limit = 80;
  return '"' + std::string(text.substr(0, limit)) + (text.size() > limit ? "…\"" : "\"");
}

std::string tag(pugi::xml_node element) { return std::string("<") + element.name() + ">"; }

/// Reads one document; every fault leaves it as an exception.
class Reader
{
public:
  Reader(const std::string& text, const std::string& file, const std::string& shortName) : _text(text), _file(file), _shortName(shortName)
  {
  }

  Project read()
  {
    if (const auto bad = findBadCharacter(_text))
      fault(bad->offset, bad->text);
    // parse_fragment keeps text outside the root, which would be passed over in silence otherwise.
    const auto result = _document.load_buffer(_text.data(), _text.size(), pugi::parse_default | pugi::parse_fragment, pugi::encoding_utf8);
    if (!result)
      fault(static_cast<std::size_t>(result.offset), std::string("the XML is damaged: ") + result.description());
    const auto root = _document.first_child();
    if (!root)
      fault(0, "there is no <project>");
    if (std::strcmp(root.name(), "project") != 0)
      fault(root, "the root must be <project>, not " + (root.type() == pugi::node_element ? tag(root) : std::string("text")));
    if (const auto more = root.next_sibling())
      fault(more, "there must be nothing after </project>");
    checkAttributes(root, {"format", "name"});
    if (const auto format = required(root, "format"); format != "1")
      fault(root, "the format " + quote(format) + " is not known; write format=\"1\"");

    Project project;
    project.name = root.attribute("name").value();
    project.root = ProjectStep{SequenceStep{children(root, 1), 1}, title(root, "project")};
    return project;
  }

private:
  [[noreturn]] void fault(std::size_t offset, const std::string& what) const
  {
    offset = std::min(offset, _text.size());
    const auto found = line(offset);
    throw FaultyFile(_file + ":" + std::to_string(found) + " (offset " + std::to_string(offset) + "): " + what, {_shortName, found, what});
  }

  [[noreturn]] void fault(pugi::xml_node node, const std::string& what) const { fault(offset(node), what); }

  /// Of an element's "<", and of a text's beginning.
  static std::size_t offset(pugi::xml_node node)
  {
    return static_cast<std::size_t>(std::max<std::ptrdiff_t>(node.offset_debug() - (node.type() == pugi::node_element ? 1 : 0), 0));
  }

  /// Counts on from the place asked for last, since elements come in order.
  std::size_t line(std::size_t offset) const
  {
    if (offset < _lineOffset)
    {
      _lineOffset = 0;
      _line = 1;
    }
    const auto begin = _text.begin();
    _line += static_cast<std::size_t>(
        std::count(begin + static_cast<std::ptrdiff_t>(_lineOffset), begin + static_cast<std::ptrdiff_t>(offset), '\n'));
    _lineOffset = offset;
    return _line;
  }

  std::string title(pugi::xml_node element, const std::string& what) const
  {
    return what + " (" + _shortName + ":" + std::to_string(line(offset(element))) + ")";
  }

  void checkAttributes(pugi::xml_node element, std::initializer_list<std::string_view> known) const
  {
    for (const auto& attribute : element.attributes())
    {
      const std::string_view name = attribute.name();
      if (std::find(known.begin(), known.end(), name) == known.end())
      {
        std::string list;
        for (const auto& each : known)
          list += (list.empty() ? "" : ", ") + std::string(each);
        fault(element, tag(element) + " has no attribute " + quote(name) + (list.empty() ? "" : "; it takes " + list));
      }
      if (element.attribute(attribute.name()) != attribute)
        fault(element, tag(element) + " has the attribute " + quote(name) + " twice");
    }
  }

  std::string required(pugi::xml_node element, const char* name) const
  {
    const auto attribute = element.attribute(name);
    if (!attribute)
      fault(element, tag(element) + " needs the attribute " + quote(name));
    return attribute.value();
  }

  std::string requiredText(pugi::xml_node element, const char* name) const
  {
    auto text = required(element, name);
    if (text.empty())
      fault(element, "the attribute " + quote(name) + " of " + tag(element) + " is empty");
    return text;
  }

  std::chrono::nanoseconds seconds(pugi::xml_node element, const char* name) const
  {
    const auto text = required(element, name);
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(number) || number < 0 || number > projectSecondsLimit)
      fault(element, "the attribute " + quote(name) + " of " + tag(element) + " must be a number of seconds from 0 to 1000000000, not " +
                         quote(text));
    return std::chrono::round<std::chrono::nanoseconds>(std::chrono::duration<double>(number));
  }

  std::uint64_t count(pugi::xml_node element) const
  {
    const auto text = required(element, "count");
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number > projectCountLimit)
      fault(element, "the attribute \"count\" of <repeat> must be a whole number from 0 to 1000000000, not " + quote(text));
    return number;
  }

  /// Throws vu::Value::parse_error for what is no JSON.
  vu::Value json(pugi::xml_node element, const std::string& text, const char* name) const
  {
    bool deep = false;
    try
    {
      auto value = vu::Value::parse(text,
                                    [&deep](int depth, vu::Value::parse_event_t, vu::Value&)
                                    {
                                      deep = deep || depth > projectDepthLimit;
                                      return !deep;
                                    });
      if (deep)
        fault(element, "the values in the attribute " + quote(name) + " of " + tag(element) + " stand too deep in each other");
      return value;
    }
    catch (const vu::Value::out_of_range&)
    {
      fault(element, "a number in the attribute " + quote(name) + " of " + tag(element) + " is out of range");
    }
  }

  Steps children(pugi::xml_node parent, int depth) const
  {
    Steps steps;
    for (const auto& child : parent.children())
    {
      if (child.type() != pugi::node_element)
        fault(child, "text has no meaning in " + tag(parent));
      if (depth > projectDepthLimit)
        fault(child, "steps stand more than " + std::to_string(projectDepthLimit) + " deep in each other");
      steps.push_back(step(child, depth));
    }
    return steps;
  }

  ProjectStep step(pugi::xml_node element, int depth) const
  {
    const std::string_view name = element.name();
    if (name == "sequence")
    {
      checkAttributes(element, {});
      return {SequenceStep{children(element, depth + 1), 1}, title(element, "sequence")};
    }
    if (name == "parallel")
    {
      checkAttributes(element, {});
      return {ParallelStep{children(element, depth + 1)}, title(element, "parallel")};
    }
    if (name == "repeat")
      return repeat(element, depth);
    if (element.first_child())
      fault(element.first_child(), tag(element) + " takes nothing inside");
    if (name == "event")
      return event(element);
    if (name == "wait")
    {
      checkAttributes(element, {"seconds"});
      return {WaitStep{seconds(element, "seconds")}, title(element, "wait")};
    }
    if (name == "call")
      return call(element);
    if (name == "run")
      return run(element);
    if (name == "log")
    {
      checkAttributes(element, {"message"});
      return {LogStep{required(element, "message")}, title(element, "log")};
    }
    if (name == "fail")
    {
      checkAttributes(element, {"reason"});
      return {FailStep{requiredText(element, "reason")}, title(element, "fail")};
    }
    fault(element, tag(element) + " is not known; the steps are event, wait, call, run, repeat, parallel, sequence, log and fail");
  }

  ProjectStep repeat(pugi::xml_node element, int depth) const
  {
    checkAttributes(element, {"count"});
    SequenceStep action;
    action.count = element.attribute("count") ? std::optional(count(element)) : std::nullopt;
    action.steps = children(element, depth + 1);
    if (!action.count && action.steps.empty())
      fault(element, "a <repeat> without count and without steps would do nothing for ever");
    return {std::move(action), title(element, "repeat")};
  }

  ProjectStep event(pugi::xml_node element) const
  {
    checkAttributes(element, {"key", "value"});
    EventStep action;
    action.key = requiredText(element, "key");
    const auto text = required(element, "value");
    try
    {
      action.value = json(element, text, "value");
    }
    catch (const vu::Value::parse_error&)
    {
      action.value = text;
    }
    const auto what = "event " + action.key;
    return {std::move(action), title(element, what)};
  }

  ProjectStep call(pugi::xml_node element) const
  {
    checkAttributes(element, {"service", "method", "arguments"});
    CallStep action{requiredText(element, "service"), requiredText(element, "method"), vu::Value::array()};
    if (const auto attribute = element.attribute("arguments"))
      try
      {
        action.arguments = json(element, attribute.value(), "arguments");
      }
      catch (const vu::Value::parse_error& error)
      {
        fault(element, "the attribute \"arguments\" of <call> is no JSON: " + std::string(error.what()));
      }
    if (!action.arguments.is_array())
      fault(element,
            "the attribute \"arguments\" of <call> must be a JSON array like [\"text\", 1], not " + quote(action.arguments.dump()));
    const auto what = "call " + action.service + "." + action.method;
    return {std::move(action), title(element, what)};
  }

  ProjectStep run(pugi::xml_node element) const
  {
    checkAttributes(element, {"command", "timeout"});
    ProgramStep action;
    try
    {
      action.words = shellWords(requiredText(element, "command"));
    }
    catch (const std::invalid_argument& error)
    {
      fault(element, std::string("the attribute \"command\" of <run> cannot be split into words: ") + error.what());
    }
    if (action.words.empty() || action.words.front().empty())
      fault(element, "the attribute \"command\" of <run> names no program");
    if (element.attribute("timeout"))
    {
      action.timeout = seconds(element, "timeout");
      if (action.timeout == std::chrono::nanoseconds::zero())
        fault(element, "the attribute \"timeout\" of <run> must be more than 0 seconds");
    }
    const auto what = "run " + action.words.front();
    return {std::move(action), title(element, what)};
  }

  const std::string& _text;
  const std::string& _file;
  const std::string& _shortName;
  pugi::xml_document _document;
  mutable std::size_t _line = 1;
  mutable std::size_t _lineOffset = 0;
};

} // namespace

Project parseProject(const std::string& text, const std::string& file, const std::string& shortName)
{
  return Reader(text, file, shortName).read();
}

Project readProject(const std::string& packageDirectory, const std::string& projectFile)
{
  const auto file = loadProjectFile(packageDirectory, projectFile);
  auto project = parseProject(file.text, file.path.string(), projectFile);
  project.directory = file.path.parent_path();
  return project;
}

} // namespace packages
