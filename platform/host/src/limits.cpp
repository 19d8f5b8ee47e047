#include "limits.hpp"

#include <cmath>
#include <map>
#include <stdexcept>
#include <variant>

namespace Tarvik
{

namespace
{

/// Beyond any use, and far from where sums overflow.
constexpr std::uint64_t greatestNumber = std::uint64_t(1) << 40;
constexpr double greatestSeconds = 1e6;

} // namespace

void readLimits(const vu::Value& settings, Host::Options& options)
{
  if (!settings.is_object())
    throw std::invalid_argument("an object is needed");
  auto& limits = options.limits;
  const std::map<std::string, std::variant<std::size_t*, std::chrono::milliseconds*>> known{
      {"connections", &limits.connections},
      {"connections-per-peer", &limits.connectionsPerPeer},
      {"connections-per-token", &limits.connectionsPerToken},
      {"connections-for-admins", &limits.connectionsForAdmins},
      {"connections-without-token", &limits.connectionsWithoutToken},
      {"header-bytes", &limits.headerBytes},
      {"message-bytes", &limits.messageBytes},
      {"upload-bytes", &limits.uploadBytes},
      {"open-calls", &limits.openCalls},
      {"running-calls", &limits.runningCalls},
      {"unsent-bytes", &limits.unsentBytes},
      {"unsent-bytes-in-all", &limits.unsentBytesInAll},
      {"links", &limits.links},
      {"queued-messages", &limits.queuedMessages},
      {"queued-bytes", &limits.queuedBytes},
      {"header-seconds", &limits.header},
      {"body-seconds", &limits.body},
      {"idle-seconds", &limits.idle},
      {"send-seconds", &limits.send},
      {"close-seconds", &limits.close},
      {"package-bytes", &options.packageBytes},
      {"package-entries", &options.packageEntries},
      {"runs", &options.runs}};
  for (const auto& [key, value] : settings.items())
  {
    const auto found = known.find(key);
    if (found == known.end())
      throw std::invalid_argument("there is no limit '" + key + "'");
    if (const auto* const number = std::get_if<std::size_t*>(&found->second))
    {
      if (!value.is_number_unsigned() || value < 1 || value > greatestNumber)
        throw std::invalid_argument(key + ": a whole number from 1 on is needed, not " + value.dump());
      **number = value.get<std::size_t>();
    }
    else
    {
      if (!value.is_number() || value < 0.001 || value > greatestSeconds)
        throw std::invalid_argument(key + ": a number of seconds is needed, not " + value.dump());
      *std::get<std::chrono::milliseconds*>(found->second) = std::chrono::milliseconds(std::llround(value.get<double>() * 1000));
    }
  }
}

} // namespace Tarvik
