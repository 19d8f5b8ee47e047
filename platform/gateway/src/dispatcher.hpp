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
#include "descriptiontexts.hpp"
#include "jsonrpc.hpp"
#include "refusallog.hpp"

namespace Tarvik
{

/// Carries out what JSON-RPC messages ask for. It blocks nobody: calls run on
/// the broker's pool. Used from one thread, the gateway's.
class Dispatcher
{
public:
  /// The methods of the session that a connection has itself, those of its
  /// links: gives the answer at once; none for all others.
  using ConnectionMethods = std::function<std::optional<std::string>(const JsonRpc::Request&)>;
  /// Called once for each message, on any thread, with the text to send;
  /// empty when nothing is to be answered.
  using Done = std::function<void(std::string answer)>;

  /// `batchBytes` is what the answers of one batch may come to.
  Dispatcher(std::shared_ptr<ZB::ZBBroker> broker, std::shared_ptr<const ZB::CallGate> calls, std::size_t batchBytes,
             std::shared_ptr<RefusalLog> refusals, std::shared_ptr<Sessions> sessions)
      : _broker(std::move(broker)), _calls(std::move(calls)), _batchBytes(batchBytes), _refusals(std::move(refusals)),
        _sessions(std::move(sessions))
  {
  }

  /// `bytes` is the size of the message, which keeps what is not carried out:
  /// a long one is better let go of elsewhere.
  void handle(JsonRpc::Message& message, std::size_t bytes, const Client& client, const ConnectionMethods& ofConnection, Done done);

private:
  void dispatch(JsonRpc::Request& request, std::size_t bytes, const Client& client, const ConnectionMethods& ofConnection, Done done);
  std::string session(const JsonRpc::Request& request, const Client& client);
  void call(JsonRpc::Request& request, std::size_t bytes, const Client& client, const Done& done);

  const std::shared_ptr<ZB::ZBBroker> _broker;
  const std::shared_ptr<const ZB::CallGate> _calls;
  const std::size_t _batchBytes;
  const std::shared_ptr<RefusalLog> _refusals;
  const std::shared_ptr<Sessions> _sessions;
  DescriptionTexts _descriptions;
};

} // namespace Tarvik
