#include <cli/text.hpp>

#include "context.hpp"

namespace Tarvik
{

namespace
{

vu::Object tokens(vu::RemoteSession& session) { return session.service("Tokens").value(); }

void open(Context& context)
{
  const auto answer = context.connect()->call("session.code", vu::Value::array()).value();
  const auto address = context.host.url + "/?code=" + answer.at("code").get<std::string>();
  if (context.json)
    return context.print({{"url", address}});
  context.out << address << "\n";
}

void addToken(Context& context, const std::string& name, const std::string& role, const std::string& expires)
{
  const auto time = parseDuration(expires);
  if (!expires.empty() && !time)
    throw CommandError("\"" + singleLine(expires) + "\" is no time: write it as 45s, 10m, 12h or 30d", ExitCode::WrongUsage);
  const auto session = context.connect();
  const auto token = time ? tokens(*session).call<std::string>("addTemporary", name, role, time->count())
                          : tokens(*session).call<std::string>("add", name, role);
  if (context.json)
    return context.print({{"name", name}, {"role", role}, {"token", token}});
  context.out << token << "\n";
}

void listTokens(Context& context)
{
  const auto all = tokens(*context.connect()).call<vu::Value>("list");
  if (context.json)
    return context.print(all);
  if (all.empty())
  {
    context.out << "nobody has a token but the host itself; \"tarvik token add NAME --role ROLE\" makes one\n";
    return;
  }
  const auto orNever = [](const vu::Value& time) { return time.is_string() ? time.get<std::string>() : "never"; };
  std::vector<std::vector<std::string>> table{{"NAME", "ROLE", "CREATED", "EXPIRES", "LAST USED"}};
  for (const auto& token : all)
    table.push_back({token.at("name"), token.at("role"), token.at("created"), orNever(token.at("expires")), orNever(token.at("lastUsed"))});
  context.out << formatTable(table);
}

void removeToken(Context& context, const std::string& name)
{
  const auto outcome = tokens(*context.connect()).call<vu::Value>("remove", name);
  const bool durable = outcome.at("durable");
  const auto reason = outcome.at("reason").get<std::string>();
  if (context.json)
  {
    vu::Value told{{"name", name}, {"state", "removed"}};
    if (!durable)
      told.update({{"durable", false}, {"reason", reason}});
    return context.print(told);
  }
  context.out << name << " removed\n";
  if (!durable)
    context.out << "it lets in nobody any more, but would after a restart of the host: " << singleLine(reason)
                << "; the host tries again\n";
}

void renew(Context& context)
{
  tokens(*context.connect()).call<void>("renew");
  if (context.json)
    return context.print({{"name", "local"}, {"state", "renewed"}});
  context.out << "run/token is renewed; connections made with the former one end now\n";
}

} // namespace

void addAccessCommands(Commands& commands)
{
  commands.add("open", "Prints an address that opens the page in a browser, once and within 60 s", open);
  auto* group = commands.addGroup("token", "Tokens that let others in");
  const auto name = std::make_shared<std::string>();
  const auto role = std::make_shared<std::string>();
  const auto expires = std::make_shared<std::string>();
  auto* adding = commands.add(*group, "add", "Makes a token and prints it, this once",
                              [name, role, expires](Context& context) { addToken(context, *name, *role, *expires); });
  adding->add_option("NAME", *name, "Whose it is")->required();
  adding->add_option("--role", *role, "observer, operator or admin")->required()->type_name("ROLE");
  adding->add_option("--expires", *expires, "How long it lets in: 45s, 10m, 12h, 30d")->type_name("TIME");
  commands.add(*group, "list", "Lists the tokens", listTokens);
  commands.add(*group, "renew", "Replaces the token in run/token and ends the connections that the former one has opened", renew);
  commands
      .add(*group, "remove", "Takes a token back and ends the connections that it has opened",
           [name](Context& context) { removeToken(context, *name); })
      ->add_option("NAME", *name, "Whose it is")
      ->required();
}

} // namespace Tarvik
