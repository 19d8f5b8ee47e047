#pragma once

#include <memory>
#include <string>

#include <vu/log.hpp>
#include <zb/callgate.hpp>

#include "client.hpp"
#include "metrics.hpp"
#include "refusallog.hpp"

namespace Tarvik
{

/// What a client has asked for, as the log tells it: who, from where, what, and
/// how it ended. At debug level what an observer may do, else at info.
class LoggedRequest
{
public:
  /// A call of a service. Long texts among the arguments are cut short, so that
  /// a token given by mistake does not get into the log whole.
  LoggedRequest(const ZB::Caller& caller, const ZB::Call& call, vu::Role least);
  /// Anything else that changes something.
  LoggedRequest(const Client& client, std::string what);

  void ended(const std::string& outcome) const;
  /// The same, unless the log has enough of the client's refused requests.
  void refused(const std::string& outcome, RefusalLog& refusals) const;

private:
  std::string _name;
  std::string _address;
  std::string _what;
  vu::log::Level _level;
};

/// Counts and logs every call that comes over a wire.
ZB::CallObserver recordCalls(std::shared_ptr<Metrics> metrics, std::shared_ptr<RefusalLog> refusals);

} // namespace Tarvik
