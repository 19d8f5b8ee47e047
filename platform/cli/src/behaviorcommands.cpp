#include <algorithm>
#include <set>

#include <cli/text.hpp>

#include "behaviors.hpp"
#include "stopping.hpp"

namespace Tarvik
{

namespace
{

struct Row
{
  std::string name;
  std::string state;
  vu::Future<std::string> nature;
  vu::Future<std::vector<std::string>> tags;
};

/// Everything is asked at once, so that the list costs two round trips and not
/// two for every behavior.
std::vector<Row> askForRows(const Behaviors& behaviors)
{
  const auto& manager = behaviors.object();
  const auto installed = manager.async<std::vector<std::string>>("getInstalledBehaviors");
  const auto loaded = manager.async<std::set<std::string>>("getLoadedBehaviors");
  const auto running = manager.async<std::set<std::string>>("getRunningBehaviors");
  const auto in = [](const std::set<std::string>& names, const std::string& name)
  { return names.contains(name) || names.contains(name + "/."); };
  std::vector<Row> rows;
  for (const auto& name : installed.value())
  {
    const auto* state = in(running.value(), name) ? "running" : in(loaded.value(), name) ? "loaded" : "installed";
    rows.push_back({name, state, manager.async<std::string>("getBehaviorNature", name),
                    manager.async<std::vector<std::string>>("getBehaviorTags", name)});
  }
  return rows;
}

void listBehaviors(Context& context)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const auto rows = askForRows(behaviors);
  auto values = vu::Value::array();
  std::vector<std::vector<std::string>> table{{"BEHAVIOR", "STATE", "NATURE", "TAGS"}};
  for (const auto& row : rows)
  {
    if (row.nature.hasError() || row.tags.hasError())
    {
      // Its package may have been removed since the first answer.
      const auto now = behaviors.installed();
      if (std::find(now.begin(), now.end(), row.name) == now.end())
        continue;
    }
    values.push_back({{"name", row.name}, {"state", row.state}, {"nature", row.nature.value()}, {"tags", row.tags.value()}});
    table.push_back({row.name, row.state, row.nature.value(), joined(row.tags.value())});
  }
  if (context.json)
    context.print(values);
  else if (values.empty())
    context.out << "no behavior is installed; \"tarvik package install PATH\" installs a package\n";
  else
    context.out << formatTable(table);
}

/// Names as JSON, or one a line.
void printNames(const Context& context, const std::vector<std::string>& names)
{
  if (context.json)
    return context.print(names);
  for (const auto& name : names)
    context.out << name << "\n";
}

/// Calls `method` for one behavior. The manager resolves the name itself, so
/// that the name to be shown is asked for in the same round trip.
void callFor(Context& context, const std::string& method, const std::string& name, const std::string& done)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const auto answer = behaviors.object().async<vu::Value>(method, name);
  const auto resolved = behaviors.resolve(name);
  const auto result = answer.value();
  if (result.is_boolean() && !result.get<bool>())
    throw CommandError("the behavior manager refused \"" + name + "\"; its log tells why");
  if (context.json)
    return context.print({{"name", resolved}, {"state", done}});
  context.out << resolved << " " << done << "\n";
}

void stop(Context& context, const std::string& name, bool all)
{
  if (!name.empty())
    return stopOne(context, name);
  if (!all)
    throw CommandError("stop: name a behavior, or write --all; \"tarvik --help\" tells how it is used", ExitCode::WrongUsage);
  stopAll(context);
}

void tags(Context& context, const std::string& name)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const auto& manager = behaviors.object();
  printNames(context, name.empty() ? behaviors.names("getTagList")
                                   : manager.call<std::vector<std::string>>("getBehaviorTags", behaviors.resolve(name)));
}

void addDefaultCommands(Commands& commands)
{
  auto* group = commands.addGroup("default", "The behaviors that are started with the host");
  const auto name = std::make_shared<std::string>();
  commands
      .add(*group, "add", "Starts a behavior with the host from now on",
           [name](Context& context) { callFor(context, "addDefaultBehavior", *name, "added to the default behaviors"); })
      ->add_option("NAME", *name, "Behavior")
      ->required();
  // Not resolved: a default behavior may be one that is not installed any more.
  const auto remove = [name](Context& context)
  {
    const auto session = context.connect();
    Behaviors(*session).object().call<void>("removeDefaultBehavior", *name);
    if (context.json)
      return context.print({{"name", *name}, {"state", "removed from the default behaviors"}});
    context.out << *name << " removed from the default behaviors\n";
  };
  commands.add(*group, "remove", "Starts it with the host no longer", remove)->add_option("NAME", *name, "Behavior")->required();
  commands.add(*group, "list", "Lists them",
               [](Context& context)
               {
                 const auto session = context.connect();
                 printNames(context, Behaviors(*session).names("getDefaultBehaviors"));
               });
  commands.add(*group, "play", "Starts them now",
               [](Context& context)
               {
                 const auto session = context.connect();
                 Behaviors(*session).object().call<void>("playDefaultProject");
                 if (context.json)
                   return context.print({{"state", "started"}});
                 context.out << "default behaviors started\n";
               });
}

} // namespace

void addBehaviorCommands(Commands& commands)
{
  const auto name = std::make_shared<std::string>();
  commands.add("list", "Lists the behaviors with state, nature and tags", listBehaviors);
  commands.add("start", "Starts a behavior and returns", [name](Context& context) { callFor(context, "startBehavior", *name, "started"); })
      ->add_option("NAME", *name, "Behavior")
      ->required();
  commands
      .add("load", "Loads a behavior, so that it starts quickly",
           [name](Context& context) { callFor(context, "preloadBehavior", *name, "loaded"); })
      ->add_option("NAME", *name, "Behavior")
      ->required();

  const auto all = std::make_shared<bool>(false);
  auto* stopCommand = commands.add("stop", "Stops a behavior, or all", [name, all](Context& context) { stop(context, *name, *all); });
  auto* one = stopCommand->add_option("NAME", *name, "Behavior");
  stopCommand->add_flag("--all", *all, "Every running behavior")->excludes(one);

  commands.add("tags", "Lists all tags, or those of one behavior", [name](Context& context) { tags(context, *name); })
      ->add_option("NAME", *name, "Behavior");
  addDefaultCommands(commands);
}

} // namespace Tarvik
