#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <zb/zbbroker.hpp>

#include "client.hpp"
#include "jsonrpc.hpp"
#include "metrics.hpp"

namespace Tarvik
{

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

  Dispatcher(std::shared_ptr<ZB::ZBBroker> broker, std::size_t maximumOpenCalls, std::shared_ptr<Metrics> metrics)
      : _broker(std::move(broker)), _maximumOpenCalls(maximumOpenCalls), _metrics(std::move(metrics))
  {
  }

  /// The calls of one connection that have no answer yet. Thread-safe.
  struct OpenCalls
  {
    std::atomic<std::size_t> count = 0;
  };

  void handle(JsonRpc::Message message, const Client& client, const std::shared_ptr<OpenCalls>& open, const Own& own, Done done) const;

private:
  void dispatch(const JsonRpc::Request& request, const Client& client, const std::shared_ptr<OpenCalls>& open, const Own& own,
                Done done) const;
  std::string session(const JsonRpc::Request& request, const Client& client) const;
  void call(const JsonRpc::Request& request, const Client& client, Metrics::Clock::time_point begin, const Done& done) const;

  const std::shared_ptr<ZB::ZBBroker> _broker;
  const std::size_t _maximumOpenCalls;
  const std::shared_ptr<Metrics> _metrics;
};

} // namespace Tarvik
