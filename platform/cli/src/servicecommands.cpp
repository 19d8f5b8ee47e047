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
  const Behaviors behaviors(*session);
  // All are asked before the first answer is waited for.
  const auto packages = session->service("PackageManager").value().async<vu::Value>("packages");
  const auto ask = [&behaviors](const char* method) { return behaviors.object().async<std::vector<std::string>>(method); };
  const auto installed = ask("getInstalledBehaviors");
  const auto loaded = ask("getLoadedBehaviors");
  const auto running = ask("getRunningBehaviors");
  const auto services = session->services();
  if (context.json)
    return context.print({{"url", url},
                          {"services", services},
                          {"packages", packages.value().size()},
                          {"installed", installed.value()},
                          {"loaded", loaded.value()},
                          {"running", running.value()}});
  const auto size = [](const auto& answer) { return std::to_string(answer.value().size()); };
  context.out << formatTable({{"host", url},
                              {"services", joined(services)},
                              {"packages", size(packages)},
                              {"behaviors", size(installed) + " installed, " + size(loaded) + " loaded, " + size(running) + " running"},
                              {"running", running.value().empty() ? "none" : joined(running.value())}});
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

void requireMethodName(const std::string& text)
{
  const auto dot = text.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == text.size())
    throw CommandError("\"" + text + "\" does not name a method: write SERVICE.METHOD, such as ZBMemory.getEventList",
                       ExitCode::WrongUsage);
}

void call(Context& context, const std::string& method, const std::vector<std::string>& texts)
{
  requireMethodName(method);
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
