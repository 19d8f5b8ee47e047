#include "server.hpp"

#include <sys/resource.h>

namespace Tarvik
{

namespace
{

/// Connections beyond the bound that are being told that there is no room.
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

} // namespace

Server::Room Server::findRoom(const std::string& peer, int descriptor) const
{
  std::size_t all = 0;
  std::size_t ofPeer = 0;
  for (const auto& [key, connection] : connections)
    if (!connection->isEnding())
    {
      ++all;
      ofPeer += connection->peer() == peer ? 1 : 0;
    }
  const auto& limits = options.limits;
  const auto files = static_cast<std::size_t>(descriptor);
  if (const auto most = filesForClients(); files >= most)
    return files >= most + waitingRoom ? Room::NotEven : endLongestIdle() ? Room::Free : Room::None;
  if (ofPeer >= limits.connectionsPerPeer ? endLongestIdle(peer) : all < limits.connections || endLongestIdle())
    return Room::Free;
  return connections.size() < limits.connections + waitingRoom ? Room::None : Room::NotEven;
}

bool Server::endLongestIdle(const std::string& peer) const
{
  std::shared_ptr<Connection> longest;
  std::pair<bool, Connection::Clock::time_point> best;
  for (const auto& [key, connection] : connections)
  {
    const auto since = connection->idleSince();
    if (!since || (!peer.empty() && connection->peer() != peer))
      continue;
    const std::pair candidate(connection->isWebSocket(), *since);
    if (longest && best < candidate)
      continue;
    longest = connection;
    best = candidate;
  }
  if (longest)
    longest->makeRoom();
  return longest != nullptr;
}

} // namespace Tarvik
