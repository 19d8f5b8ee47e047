#include "server.hpp"

namespace Tarvik
{

namespace
{

/// Connections beyond the bound that are being told that there is no room.
constexpr std::size_t waitingRoom = 64;

} // namespace

Server::Room Server::findRoom(const std::string& peer) const
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
