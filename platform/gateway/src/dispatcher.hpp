#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gateway/access.hpp>
#include <zb/zbbroker.hpp>

#include "jsonrpc.hpp"

namespace Tarvik
{

/// Who is at the other end of a connection.
struct Client
{
  Identity identity;
  std::string address; ///< "127.0.0.1:41234"
};

/// Writes who called what from where and how it ended: at info level what an
/// observer may not do, else at debug.
void logCall(const Client& client, const std::string& service, const std::string& method, const std::string& outcome);

/// Carries out what JSON-RPC messages ask for. It blocks nobody: calls run on
/// the broker's pool.
class Dispatcher
{
public:
  /// Answers, at once, a request that only the connection itself can carry
  /// out; none for all others.
  using Own = std::function<std::optional<std::string>(const JsonRpc::Request&)>;
  /// Called once for each message, on any thread, with the text to send;
  /// empty when nothing is to be answered.
  using Done = std::function<void(std::string answer)>;

  Dispatcher(std::shared_ptr<ZB::ZBBroker> broker, std::size_t maximumOpenCalls)
      : _broker(std::move(broker)), _maximumOpenCalls(maximumOpenCalls)
  {
  }

  /// The calls of one connection that have no answer yet. Thread-safe.
  class OpenCalls;
  static std::shared_ptr<OpenCalls> makeOpenCalls();

  void handle(JsonRpc::Message message, const Client& client, const std::shared_ptr<OpenCalls>& open, const Own& own, Done done) const;

private:
  void dispatch(JsonRpc::Request request, const Client& client, const std::shared_ptr<OpenCalls>& open, const Own& own, Done done) const;
  std::string session(const JsonRpc::Request& request) const;
  void call(const JsonRpc::Request& request, const Client& client, const Done& done) const;

  const std::shared_ptr<ZB::ZBBroker> _broker;
  const std::size_t _maximumOpenCalls;
};

} // namespace Tarvik
