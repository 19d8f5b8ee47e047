#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include <cli/commandline.hpp>
#include <vu/remotesession.hpp>
#include <vu/value.hpp>

namespace Tarvik
{

/// A command that cannot be carried out; the text says what to do next.
class CommandError : public std::runtime_error
{
public:
  explicit CommandError(const std::string& text, ExitCode code = ExitCode::Refused) : std::runtime_error(text), _code(code) {}
  ExitCode code() const { return _code; }

private:
  ExitCode _code;
};

/// Where the host is: its root, or its address, a file with a token, and
/// perhaps one with an authority to trust.
struct HostOptions
{
  std::string root;
  std::string url;
  std::string tokenFile;
  std::string authority;
  std::string certificate = {}; ///< of the root's host; empty without TLS
};

/// What a command works with. Used from the main thread alone.
struct Context
{
  HostOptions host;
  bool json = false;
  std::ostream& out;
  std::ostream& error;

  /// Of the host, once connect() has found it. Throws a CommandError.
  std::string token() const;

  /// Opens a session, and completes `host` with the address it found. Throws a
  /// CommandError or a vu::ServiceError.
  std::unique_ptr<vu::RemoteSession> connect();

  /// A JSON value as one line, with --json.
  void print(const vu::Value& value) const;
};

/// The commands as they are declared, and the one that the line has chosen.
class Commands
{
public:
  using Action = std::function<void(Context&)>;

  Commands(CLI::App& application, Context& context) : _application(application), _context(context) {}

  CLI::App& application() { return _application; }

  /// A command of `parent` with the options that all have in common.
  CLI::App* add(CLI::App& parent, const std::string& name, const std::string& description, Action action);
  CLI::App* add(const std::string& name, const std::string& description, Action action)
  {
    return add(_application, name, description, std::move(action));
  }
  /// A command that has commands.
  CLI::App* addGroup(const std::string& name, const std::string& description);

  /// --root, --url, --token-file, --json.
  void addCommonOptions(CLI::App& application);

  const Action& chosen() const { return _chosen; }

private:
  CLI::App& _application;
  Context& _context;
  Action _chosen;
};

void addBehaviorCommands(Commands& commands);
void addRunCommand(Commands& commands);
void addWatchCommand(Commands& commands);
void addHistoryCommand(Commands& commands);
void addPackageCommands(Commands& commands);
void addServiceCommands(Commands& commands);
void addAccessCommands(Commands& commands);

} // namespace Tarvik
