#include <cli/text.hpp>

#include "behaviors.hpp"

namespace Tarvik
{

namespace
{

void status(Context& context)
{
  const auto session = context.connect();
  const auto url = context.host.url;
  const auto services = session->services();
  const Behaviors behaviors(*session);
  const auto packages = session->service("PackageManager").value().call<vu::Value>("packages").size();
  const auto installed = behaviors.installed();
  const auto loaded = behaviors.names("getLoadedBehaviors");
  const auto running = behaviors.names("getRunningBehaviors");
  if (context.json)
    return context.print(
        {{"url", url}, {"services", services}, {"packages", packages}, {"installed", installed}, {"loaded", loaded}, {"running", running}});
  context.out << formatTable({{"host", url},
                              {"services", joined(services)},
                              {"packages", std::to_string(packages)},
                              {"behaviors", std::to_string(installed.size()) + " installed, " + std::to_string(loaded.size()) +
                                                " loaded, " + std::to_string(running.size()) + " running"},
                              {"running", running.empty() ? "none" : joined(running)}});
}

void services(Context& context)
{
  const auto names = context.connect()->services();
  if (context.json)
    return context.print(names);
  for (const auto& name : names)
    context.out << name << "\n";
}

void describe(Context& context, const std::string& service)
{
  const auto session = context.connect();
  const auto description = session->call("session.describe", vu::Value::array({service})).value();
  if (context.json)
    return context.print(description);
  context.out << formatDescription(description.get<vu::ObjectDescription>());
}

void call(Context& context, const std::string& method, const std::vector<std::string>& texts)
{
  try
  {
    splitMethodName(method);
  }
  catch (const std::invalid_argument& error)
  {
    throw CommandError(error.what(), ExitCode::WrongUsage);
  }
  auto arguments = vu::Value::array();
  for (const auto& text : texts)
    arguments.push_back(argumentFromText(text));
  const auto session = context.connect();
  const auto result = session->call(method, arguments).value();
  if (context.json)
    return context.print(result);
  context.out << formatValue(result);
}

} // namespace

void addServiceCommands(Commands& commands)
{
  const auto name = std::make_shared<std::string>();
  commands.add("status", "Tells what the host has and does", status);
  commands.add("services", "Lists the services", services);
  commands.add("describe", "Shows the methods and signals of a service", [name](Context& context) { describe(context, *name); })
      ->add_option("SERVICE", *name, "The service")
      ->required();

  // The arguments are taken from what the parser leaves: as an option's values
  // it would take arrays of JSON apart. One that looks like an option of ours
  // is written as a JSON string: '"--json"'.
  const auto chosen = std::make_shared<CLI::App*>();
  *chosen = commands.add("call", "Calls a method: SERVICE.METHOD [ARGUMENT...], arguments JSON or else strings",
                         [name, chosen](Context& context) { call(context, *name, (*chosen)->remaining()); });
  (*chosen)->allow_extras();
  (*chosen)->add_option("SERVICE.METHOD", *name, "The method")->required();
}

} // namespace Tarvik
