#pragma once

#include <memory>
#include <string>

#include <gateway/access.hpp>
#include <zb/callgate.hpp>

#include "backlog.hpp"

namespace Tarvik
{

/// Who is at the other end of a connection.
struct Client
{
  Identity identity;
  std::string address;                            ///< "127.0.0.1:41234"
  std::shared_ptr<ZB::ConnectionCalls> openCalls; ///< of the connection
  std::shared_ptr<Backlog::Share> unsent;         ///< what waits to be sent to it

  ZB::Caller caller() const { return {identity.name, identity.rights ? identity.rights : ZB::rightsOf(identity.role), address, openCalls}; }
};

} // namespace Tarvik
