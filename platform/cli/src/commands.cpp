#include "context.hpp"

#include <cli/text.hpp>

#include "safeoutput.hpp"

namespace Tarvik
{

namespace
{

/// What a person can do about an error of that kind.
std::string advice(const vu::ServiceError& error)
{
  switch (error.kind())
  {
  case vu::ServiceError::Kind::UnknownService:
    return "; \"tarvik services\" lists the services";
  case vu::ServiceError::Kind::UnknownMethod:
  case vu::ServiceError::Kind::InvalidArguments:
    return "; \"tarvik describe " + (error.module().empty() ? "SERVICE" : error.module()) + "\" shows the methods and their parameters";
  case vu::ServiceError::Kind::NotAllowed:
    return "; name a file with another token with --token-file";
  case vu::ServiceError::Kind::Overloaded:
    return "; try again when the host has less to do";
  case vu::ServiceError::Kind::ConnectionLost:
    return "; see whether the host still runs with \"tarvik status\"";
  case vu::ServiceError::Kind::Service:
    break;
  }
  return {};
}

ExitCode report(Context& context, const std::string& text, ExitCode code)
{
  context.error << "tarvik: " << singleLine(text) << std::endl;
  return code;
}

ExitCode carryOut(const Commands::Action& action, Context& context)
{
  try
  {
    action(context);
    context.out.flush();
    return ExitCode::Success;
  }
  catch (const CommandError& error)
  {
    return report(context, error.what(), error.code());
  }
  catch (const vu::ServiceError& error)
  {
    const auto lost = error.kind() == vu::ServiceError::Kind::ConnectionLost;
    return report(context, error.description() + advice(error), lost ? ExitCode::NoHost : ExitCode::Refused);
  }
  catch (const std::exception& error)
  {
    return report(context, error.what(), ExitCode::Refused);
  }
}

} // namespace

void Context::print(const vu::Value& value) const { out << value.dump(-1, ' ', false, vu::Value::error_handler_t::replace) << std::endl; }

void Commands::addCommonOptions(CLI::App& application)
{
  auto* root = application
                   .add_option("--root", _context.host.root,
                               "Root of the host; else $TARVIK_URL with $TARVIK_TOKEN_FILE, else $TARVIK_ROOT, else the user's own")
                   ->type_name("DIR");
  auto* url = application.add_option("--url", _context.host.url, "Address of the host, such as http://127.0.0.1:7110")
                  ->type_name("URL")
                  ->excludes(root);
  auto* tokenFile =
      application.add_option("--token-file", _context.host.tokenFile, "File with the token for --url")->type_name("FILE")->excludes(root);
  application.add_option("--ca", _context.host.authority, "Certificate of an authority to trust besides the system's, with --url")
      ->type_name("FILE")
      ->needs(url);
  url->needs(tokenFile);
  tokenFile->needs(url);
  application.add_flag("--json", _context.json, "Answer in JSON");
}

CLI::App* Commands::add(CLI::App& parent, const std::string& name, const std::string& description, Action action)
{
  auto* command = parent.add_subcommand(name, description);
  addCommonOptions(*command);
  command->final_callback([this, action = std::move(action)] { _chosen = action; });
  return command;
}

CLI::App* Commands::addGroup(const std::string& name, const std::string& description)
{
  auto* group = _application.add_subcommand(name, description);
  group->require_subcommand(0, 1);
  return group;
}

ExitCode runCommandLine(const std::vector<std::string>& arguments, std::ostream& toOut, std::ostream& toError)
{
  // Names, descriptions, failures and output come from packages and clients.
  SafeOutput out(toOut);
  SafeOutput error(toError);
  CLI::App application("Tells a Tarvik host what to do, and shows what it does.", "tarvik");
  application.require_subcommand(0, 1); // at least one is asked for below, where the message can name what was written
  application.failure_message([](const CLI::App*, const CLI::Error& fault)
                              { return "tarvik: " + singleLine(fault.what()) + "; \"tarvik --help\" tells how it is used\n"; });
  Context context{{}, false, out, error};
  Commands commands(application, context);
  commands.addCommonOptions(application);
  addServiceCommands(commands);
  addBehaviorCommands(commands);
  addRunCommand(commands);
  addWatchCommand(commands);
  addHistoryCommand(commands);
  addPackageCommands(commands);
  addAccessCommands(commands);
  try
  {
    application.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  }
  catch (const CLI::ParseError& fault)
  {
    return application.exit(fault, out, error) == 0 ? ExitCode::Success : ExitCode::WrongUsage;
  }
  if (!commands.chosen())
    return report(context, "a command is missing; \"tarvik --help\" lists them", ExitCode::WrongUsage);
  return carryOut(commands.chosen(), context);
}

} // namespace Tarvik
