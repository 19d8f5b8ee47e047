#include "context.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <root/root.hpp>

namespace Tarvik
{

namespace
{

std::string firstLine(const std::filesystem::path& path)
{
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

/// The address and token that the host of this root has written.
void readFromRoot(HostOptions& host)
{
  const auto root = resolveRoot(host.root);
  const RootLayout layout(root);
  host.url = firstLine(layout.endpoint);
  host.tokenFile = layout.token.string();
  if (host.url.starts_with("https:"))
    host.certificate = layout.certificate.string();
  if (host.url.empty())
    throw CommandError("no host runs on " + root.string() + " (there is no " + layout.endpoint.string() +
                           "); start one with \"tarvikd --root " + root.string() + "\", or name another with --root or --url",
                       ExitCode::NoHost);
}

std::string fromEnvironment(const char* name)
{
  const char* const value = std::getenv(name);
  return value ? value : "";
}

/// What a host sets for the programs of its behaviors; false where it is not set.
bool readFromEnvironment(HostOptions& host)
{
  host.url = fromEnvironment("TARVIK_URL");
  host.tokenFile = fromEnvironment("TARVIK_TOKEN_FILE");
  if (host.url.empty() != host.tokenFile.empty())
    throw CommandError("the environment has " +
                           std::string(host.url.empty() ? "TARVIK_TOKEN_FILE, but no TARVIK_URL" : "TARVIK_URL, but no TARVIK_TOKEN_FILE") +
                           ": set both or neither, or name the host with --root or --url",
                       ExitCode::WrongUsage);
  host.certificate = fromEnvironment("TARVIK_CERTIFICATE");
  return !host.url.empty();
}

} // namespace

std::string Context::token() const
{
  auto token = firstLine(host.tokenFile);
  if (token.empty())
    throw CommandError("no token can be read from " + host.tokenFile +
                       "; name a file that holds one, and that you may read, with --token-file");
  return token;
}

std::unique_ptr<vu::RemoteSession> Context::connect()
{
  if (host.url.empty() && (!host.root.empty() || !readFromEnvironment(host)))
    readFromRoot(host);
  vu::RemoteSession::Options options;
  options.url = host.url;
  options.token = token();
  options.certificateAuthority = host.authority;
  options.hostCertificate = host.certificate;
  try
  {
    return std::make_unique<vu::RemoteSession>(options);
  }
  catch (const vu::ServiceError& error)
  {
    if (error.kind() == vu::ServiceError::Kind::InvalidArguments)
      throw CommandError(error.description(), ExitCode::WrongUsage);
    if (error.kind() != vu::ServiceError::Kind::ConnectionLost)
      throw;
    throw CommandError(error.description() + "; start one with \"tarvikd\", or name another with --root or --url", ExitCode::NoHost);
  }
}

} // namespace Tarvik
