#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gateway/sessions.hpp>
#include <zb/callgate.hpp>
#include <zb/zbbroker.hpp>

#include "client.hpp"
#include "jsonrpc.hpp"

namespace Tarvik
{

/// Carries out what JSON-RPC messages ask for. It blocks nobody: calls run on
/// the broker's pool.
class Dispatcher
{
public:
  /// The methods of the session that a connection has itself, those of its
  /// links: gives the answer at once; none for all others.
  using ConnectionMethods = std::function<std::optional<std::string>(const JsonRpc::Request&)>;
  /// Called once for each message, on any thread, with the text to send;
  /// empty when nothing is to be answered.
  using Done = std::function<void(std::string answer)>;

  Dispatcher(std::shared_ptr<ZB::ZBBroker> broker, std::shared_ptr<const ZB::CallGate> calls, std::shared_ptr<Sessions> sessions)
      : _broker(std::move(broker)), _calls(std::move(calls)), _sessions(std::move(sessions))
  {
  }

  void handle(JsonRpc::Message message, const Client& client, const ConnectionMethods& ofConnection, Done done) const;

private:
  void dispatch(const JsonRpc::Request& request, const Client& client, const ConnectionMethods& ofConnection, Done done) const;
  std::string session(const JsonRpc::Request& request, const Client& client) const;
  void call(const JsonRpc::Request& request, const Client& client, const Done& done) const;

  const std::shared_ptr<ZB::ZBBroker> _broker;
  const std::shared_ptr<const ZB::CallGate> _calls;
  const std::shared_ptr<Sessions> _sessions;
};

} // namespace Tarvik
