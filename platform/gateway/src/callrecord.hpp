#pragma once

#include <memory>
#include <string>

#include <zb/calllog.hpp>

#include "client.hpp"
#include "metrics.hpp"
#include "refusallog.hpp"

namespace Tarvik
{

/// What a client has asked for, as the log tells it.
class LoggedRequest : public ZB::LoggedRequest
{
public:
  LoggedRequest(const ZB::Caller& caller, const ZB::Call& call, vu::Role least) : ZB::LoggedRequest("gateway", caller, call, least) {}
  LoggedRequest(const Client& client, std::string what)
      : ZB::LoggedRequest("gateway", client.identity.name, client.address, std::move(what))
  {
  }

  /// Tells how it was refused, unless the log has enough of the client's
  /// refused requests.
  void refused(const std::string& outcome, RefusalLog& refusals) const;
};

/// Counts and logs every call that comes over a wire.
ZB::CallObserver recordCalls(std::shared_ptr<Metrics> metrics, std::shared_ptr<RefusalLog> refusals);

} // namespace Tarvik
