#pragma once

#include <string>

#include <gateway/access.hpp>
#include <vu/log.hpp>
#include <vu/value.hpp>

namespace Tarvik
{

/// Who is at the other end of a connection.
struct Client
{
  Identity identity;
  std::string address; ///< "127.0.0.1:41234"
};

/// What a client has asked for, as the log tells it: who, from where, what, and
/// how it ended. At info level what an observer may not do, else at debug.
class LoggedRequest
{
public:
  /// A call of a service. Long texts among the arguments are cut short, so that
  /// a token given by mistake does not get into the log whole.
  LoggedRequest(Client client, const std::string& service, const std::string& method, const vu::Value& arguments);
  /// Anything else that changes something.
  LoggedRequest(Client client, std::string what);

  void ended(const std::string& outcome) const;

private:
  Client _client;
  std::string _what;
  vu::log::Level _level;
};

} // namespace Tarvik
