#pragma once

#include <memory>
#include <string>

#include <gateway/access.hpp>
#include <zb/callgate.hpp>

namespace Tarvik
{

/// Who is at the other end of a connection.
struct Client
{
  Identity identity;
  std::string address;                      ///< "127.0.0.1:41234"
  std::shared_ptr<ZB::CallBound> openCalls; ///< of the connection

  ZB::Caller caller() const { return {identity.name, identity.rights ? identity.rights : ZB::rightsOf(identity.role), address, openCalls}; }
};

} // namespace Tarvik
