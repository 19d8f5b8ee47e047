#include <host/commandline.hpp>

#include <fstream>
#include <map>

#include <CLI/CLI.hpp>

#include <vu/conversion.hpp>

#include "limits.hpp"

namespace Tarvik
{

namespace
{

/// The same settings whether they come from the command line or from a file.
struct Settings
{
  std::string root;
  std::string listen;
  std::vector<std::string> systemPackages;
  std::vector<std::string> modules;
  std::string moduleDirectory;
  std::string logLevel;
  std::string tlsCertificate;
  std::string tlsKey;
  bool insecure = false;
};

[[noreturn]] void refuse(const std::string& text) { throw CLI::ValidationError("--config", text); }

/// Sets what the command line has left open.
void readConfiguration(const std::string& file, Settings& settings, Host::Options& host)
{
  std::ifstream stream(file);
  if (!stream)
    refuse("cannot read " + file);
  vu::Value values;
  try
  {
    values = vu::Value::parse(stream, nullptr, true, true);
  }
  catch (const vu::Value::exception& error)
  {
    refuse(file + " is no JSON: " + error.what());
  }
  if (!values.is_object())
    refuse(file + " holds no JSON object");
  const std::map<std::string, std::string*> texts{
      {"root", &settings.root},          {"listen", &settings.listen},           {"module-directory", &settings.moduleDirectory},
      {"log-level", &settings.logLevel}, {"tls-cert", &settings.tlsCertificate}, {"tls-key", &settings.tlsKey}};
  const std::map<std::string, std::vector<std::string>*> lists{{"system-packages", &settings.systemPackages},
                                                               {"module", &settings.modules}};
  for (const auto& [key, value] : values.items())
    try
    {
      if (const auto text = texts.find(key); text != texts.end())
      {
        const auto wanted = vu::fromValue<std::string>(value);
        if (text->second->empty())
          *text->second = wanted;
      }
      else if (const auto list = lists.find(key); list != lists.end())
      {
        const auto wanted = vu::fromValue<std::vector<std::string>>(value);
        if (list->second->empty())
          *list->second = wanted;
      }
      else if (key == "insecure")
        settings.insecure = settings.insecure || vu::fromValue<bool>(value);
      else if (key == "limits") // in a file only
        readLimits(value, host);
      else if (key == "framemanager") // likewise
        host.frameManager = value;
      else
        refuse(file + ": there is no setting '" + key + "'");
    }
    catch (const std::invalid_argument& error)
    {
      refuse(file + ": " + key + ": " + error.what());
    }
}

} // namespace

std::optional<CommandLine> parseCommandLine(int argc, const char* const* argv, std::ostream& out, std::ostream& err, int& exitCode)
{
  Settings settings;
  std::string configuration;
  CLI::App app("The Tarvik host: loads the platform's modules and lets clients in.", "tarvikd");
  app.add_option("--root", settings.root,
                 "Directory of packages, preferences and the running host (default: $TARVIK_ROOT, else ~/.local/share/tarvik)");
  app.add_option("--listen", settings.listen, "ADDRESS:PORT; port 0 takes a free one (default: 127.0.0.1:7110)");
  app.add_option("--system-packages", settings.systemPackages, "Directory of read-only packages")->expected(1)->take_all();
  app.add_option("--module", settings.modules, "Module library to load after the platform's own")->expected(1)->take_all();
  app.add_option("--module-directory", settings.moduleDirectory, "Where the platform's own modules are");
  app.add_option("--config", configuration, "JSON file with the same settings");
  app.add_option("--log-level", settings.logLevel, "silent, fatal, error, warning, info, verbose or debug (default: info)");
  app.add_option("--tls-cert", settings.tlsCertificate, "PEM file with the certificate to serve TLS with");
  app.add_option("--tls-key", settings.tlsKey, "PEM file with its key");
  app.add_flag("--insecure", settings.insecure, "Allow other addresses than this machine's own without TLS");
  try
  {
    app.parse(argc, argv);
    CommandLine result;
    auto& host = result.host;
    if (!configuration.empty())
      readConfiguration(configuration, settings, host);
    if (!settings.logLevel.empty())
      try
      {
        result.logLevel = vu::log::levelFromText(settings.logLevel);
      }
      catch (const std::invalid_argument& error)
      {
        throw CLI::ValidationError("--log-level", error.what());
      }
    host.root = settings.root;
    if (!settings.listen.empty())
      host.listen = settings.listen;
    host.systemPackages.assign(settings.systemPackages.begin(), settings.systemPackages.end());
    host.modules.assign(settings.modules.begin(), settings.modules.end());
    host.moduleDirectory = settings.moduleDirectory;
    host.tlsCertificate = settings.tlsCertificate;
    host.tlsKey = settings.tlsKey;
    host.insecure = settings.insecure;
    return result;
  }
  catch (const CLI::ParseError& error)
  {
    exitCode = app.exit(error, out, err) == 0 ? 0 : 1;
    return std::nullopt;
  }
}

} // namespace Tarvik
