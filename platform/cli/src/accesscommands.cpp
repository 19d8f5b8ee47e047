#include <cli/text.hpp>

#include "context.hpp"

namespace Tarvik
{

namespace
{

vu::Object tokens(vu::RemoteSession& session) { return session.service("Tokens").value(); }

/// Only that of a host which answers: a browser would not say what is wrong.
void open(Context& context)
{
  context.connect();
  const auto address = context.host.url + "/?token=" + context.token();
  if (context.json)
    return context.print({{"url", address}});
  context.out << address << "\n";
}

void add(Context& context, const std::string& name, const std::string& role)
{
  const auto token = tokens(*context.connect()).call<std::string>("add", name, role);
  if (context.json)
    return context.print({{"name", name}, {"role", role}, {"token", token}});
  context.out << token << "\n";
}

void list(Context& context)
{
  const auto all = tokens(*context.connect()).call<vu::Value>("list");
  if (context.json)
    return context.print(all);
  if (all.empty())
  {
    context.out << "nobody has a token but the host itself; \"tarvik token add NAME --role ROLE\" makes one\n";
    return;
  }
  std::vector<std::vector<std::string>> table{{"NAME", "ROLE", "CREATED"}};
  for (const auto& token : all)
    table.push_back({token.at("name"), token.at("role"), token.at("created")});
  context.out << formatTable(table);
}

void remove(Context& context, const std::string& name)
{
  tokens(*context.connect()).call<void>("remove", name);
  if (context.json)
    return context.print({{"name", name}, {"state", "removed"}});
  context.out << name << " removed\n";
}

} // namespace

void addAccessCommands(Commands& commands)
{
  commands.add("open", "Prints the address that opens the page in a browser; it holds the token", open);
  auto* group = commands.addGroup("token", "Tokens that let others in");
  const auto name = std::make_shared<std::string>();
  const auto role = std::make_shared<std::string>();
  auto* adding =
      commands.add(*group, "add", "Makes a token and prints it, this once", [name, role](Context& context) { add(context, *name, *role); });
  adding->add_option("NAME", *name, "Whose it is")->required();
  adding->add_option("--role", *role, "observer, operator or admin")->required()->type_name("ROLE");
  commands.add(*group, "list", "Lists the tokens", list);
  commands
      .add(*group, "remove", "Takes a token back and ends the connections that it has opened",
           [name](Context& context) { remove(context, *name); })
      ->add_option("NAME", *name, "Whose it is")
      ->required();
}

} // namespace Tarvik
