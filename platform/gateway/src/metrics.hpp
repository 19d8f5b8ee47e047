#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <string_view>

#include <gateway/metricstext.hpp>

namespace Tarvik
{

/// What a gateway counts of itself; docs/operation.md tells what each figure
/// means. Thread-safe, and without locks: a text may be written between the
/// two halves of a change.
class Metrics
{
public:
  using Clock = std::chrono::steady_clock;

  void connectionEntered(bool isWebSocket);
  void connectionLeft(bool isWebSocket) { --connections(isWebSocket); }
  void connectionRefused() { ++_refusedConnections; }
  void answered(unsigned status);
  void queueDropped() { ++_queueDrops; }

  void callBegan() { ++_openCalls; }
  /// `failure` is null where the call went well.
  void callEnded(Clock::time_point begin, const std::exception_ptr& failure);

  void write(MetricsText& text) const;

private:
  using Counter = std::atomic<std::uint64_t>;

  /// Of the calls that ended in one way.
  struct Calls
  {
    static constexpr std::array<double, 9> bounds{0.001, 0.005, 0.025, 0.1, 0.5, 2.5, 10, 60, 600};
    std::array<Counter, bounds.size()> counts{};
    Counter count = 0;
    Counter microseconds = 0;
  };
  /// Those of failureForms, and the good one.
  static constexpr std::array<std::string_view, 6> results{"ok", "error", "unknown", "invalid", "refused", "overloaded"};
  static constexpr unsigned statuses = 600;

  std::atomic<std::int64_t>& connections(bool isWebSocket) { return isWebSocket ? _webSockets : _httpConnections; }

  std::atomic<std::int64_t> _httpConnections = 0;
  std::atomic<std::int64_t> _webSockets = 0;
  std::atomic<std::int64_t> _openCalls = 0;
  Counter _allHttpConnections = 0;
  Counter _allWebSockets = 0;
  Counter _refusedConnections = 0;
  Counter _queueDrops = 0;
  std::array<Counter, statuses> _answers{}; ///< by status
  std::array<Calls, results.size()> _calls;
};

} // namespace Tarvik
