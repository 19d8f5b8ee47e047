#include "server.hpp"

#include <algorithm>
#include <tuple>

#include <sys/resource.h>

namespace Tarvik
{

namespace
{

/// Connections beyond the bounds that are being told why they end.
constexpr std::size_t waitingRoom = 64;

/// Files for installations and programs, which clients leave free; none where
/// there are hardly more.
constexpr std::size_t filesForWork = 256;

/// How many files may be open when a client comes in.
std::size_t filesForClients()
{
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur - (limit.rlim_cur > 2 * filesForWork ? filesForWork : 0);
}

using Connections = std::map<Connection*, std::shared_ptr<Connection>>;

bool isStranger(const Connection& connection) { return connection.identity().number == 0; }

template <typename Counts> std::size_t count(const Connections& connections, Counts counts)
{
  return static_cast<std::size_t>(std::count_if(
      connections.begin(), connections.end(), [&counts](const auto& entry) { return !entry.second->isEnding() && counts(*entry.second); }));
}

template <typename Counts> bool endLongestIdle(const Connections& connections, Counts counts)
{
  std::shared_ptr<Connection> longest;
  std::tuple<bool, bool, Connection::Clock::time_point> best;
  for (const auto& [key, connection] : connections)
  {
    const auto since = connection->idleSince();
    if (!since || !counts(*connection))
      continue;
    const std::tuple candidate(connection->identity().role == Role::Admin, connection->isWebSocket(), *since);
    if (longest && best < candidate)
      continue;
    longest = connection;
    best = candidate;
  }
  if (longest)
    longest->makeRoom();
  return longest != nullptr;
}

bool endFirstStranger(const Connections& connections)
{
  std::map<std::string, std::size_t> strangers;
  const auto most = [&](const Connection& a, const Connection& b)
  {
    const auto [ofA, ofB] = std::pair(strangers[a.peer()], strangers[b.peer()]);
    return ofA > ofB || (ofA == ofB && a.began() < b.began());
  };
  count(connections, [&strangers](const Connection& connection) { return isStranger(connection) && ++strangers[connection.peer()] != 0; });
  std::shared_ptr<Connection> first;
  for (const auto& [key, connection] : connections)
    if (isStranger(*connection) && !connection->isEnding() && (!first || most(*connection, *first)))
      first = connection;
  if (first)
    first->abort();
  return first != nullptr;
}

} // namespace

Server::Room Server::findRoom(int descriptor) const
{
  const auto& limits = options.limits;
  const auto files = static_cast<std::size_t>(descriptor);
  if (const auto most = filesForClients(); files >= most)
    return files >= most + waitingRoom ? Room::NotEven : endOne() ? Room::Free : Room::None;
  if (connections.size() >= limits.connections + limits.connectionsWithoutToken + waitingRoom)
    return Room::NotEven;
  return count(connections, isStranger) < limits.connectionsWithoutToken || endFirstStranger(connections) ? Room::Free : Room::None;
}

std::optional<std::string> Server::findPlace(const Connection& connection, const Identity& identity) const
{
  const auto& limits = options.limits;
  const auto others = [&connection](const Connection& other) { return &other != &connection && !isStranger(other); };
  const auto fits = [this](std::size_t most, const auto& counts)
  { return count(connections, counts) < most || endLongestIdle(connections, counts); };
  const auto withoutKept = [&limits, &identity](std::size_t most)
  { return identity.role == Role::Admin ? most : most - std::min(limits.connectionsForAdmins, most / 4); };
  if (!fits(limits.connectionsPerToken,
            [&](const Connection& other) { return others(other) && other.identity().number == identity.number; }))
    return "the token of " + identity.name + " has as many connections as one may have: close some";
  if (!fits(withoutKept(limits.connectionsPerPeer),
            [&](const Connection& other) { return others(other) && other.peer() == connection.peer(); }))
    return std::string("this address has as many connections as one may have: close some");
  if (!fits(withoutKept(limits.connections), others))
    return std::string("this host has as many connections as it takes: try again later");
  return std::nullopt;
}

bool Server::endOne() const
{
  return endFirstStranger(connections) || endLongestIdle(connections, [](const Connection&) { return true; });
}

} // namespace Tarvik
