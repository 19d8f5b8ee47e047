#include "metrics.hpp"

#include <algorithm>
#include <string>

#include <vu/error.hpp>

#include "failureforms.hpp"

namespace Tarvik
{

namespace
{

std::string_view resultOf(const std::exception_ptr& failure)
{
  if (!failure)
    return "ok";
  try
  {
    std::rethrow_exception(failure);
  }
  catch (const vu::ServiceError& error)
  {
    return formOf(error.kind()).result;
  }
  catch (...)
  {
    return failureForms.front().result;
  }
}

} // namespace

void Metrics::connectionEntered(bool isWebSocket)
{
  ++connections(isWebSocket);
  ++(isWebSocket ? _allWebSockets : _allHttpConnections);
}

void Metrics::answered(unsigned status)
{
  if (status < statuses)
    ++_answers[status];
}

void Metrics::callEnded(Clock::time_point begin, const std::exception_ptr& failure)
{
  const auto lasted = Clock::now() - begin;
  const auto seconds = std::chrono::duration<double>(lasted).count();
  const auto found = std::find(results.begin(), results.end(), resultOf(failure));
  auto& calls = _calls.at(static_cast<std::size_t>(found - results.begin()));
  --_openCalls;
  ++calls.count;
  calls.microseconds += static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(lasted).count());
  for (std::size_t i = 0; i < Calls::bounds.size(); ++i)
    if (seconds <= Calls::bounds[i])
      ++calls.counts[i];
}

void Metrics::write(MetricsText& text) const
{
  text.family("tarvik_gateway_connections", "gauge", "Connections that are open.");
  text.sample({{"kind", "http"}}, static_cast<double>(_httpConnections));
  text.sample({{"kind", "websocket"}}, static_cast<double>(_webSockets));
  text.family("tarvik_gateway_connections_total", "counter", "Connections that there were.");
  text.sample({{"kind", "http"}}, static_cast<double>(_allHttpConnections));
  text.sample({{"kind", "websocket"}}, static_cast<double>(_allWebSockets));
  text.family("tarvik_gateway_connections_refused_total", "counter", "Connections for which there was no room.");
  text.sample({}, static_cast<double>(_refusedConnections));
  text.family("tarvik_gateway_answers_total", "counter", "Answers over HTTP, by status.");
  for (unsigned status = 0; status < statuses; ++status)
    if (const auto count = _answers[status].load())
      text.sample({{"status", std::to_string(status)}}, static_cast<double>(count));
  text.family("tarvik_gateway_queue_drops_total", "counter",
              "Clients that were disconnected, and what waited for them dropped, because they did not keep up.");
  text.sample({}, static_cast<double>(_queueDrops));
  text.family("tarvik_gateway_calls_open", "gauge", "Calls of services that have no answer yet.");
  text.sample({}, static_cast<double>(_openCalls));
  text.family("tarvik_gateway_call_duration_seconds", "histogram", "Calls of services, from request to end, by result.");
  for (std::size_t i = 0; i < results.size(); ++i)
  {
    const auto& calls = _calls[i];
    std::array<std::uint64_t, Calls::bounds.size()> counts{};
    for (std::size_t bucket = 0; bucket < counts.size(); ++bucket)
      counts[bucket] = calls.counts[bucket];
    text.histogram({{"result", results[i]}}, Calls::bounds, counts, static_cast<double>(calls.microseconds) / 1e6, calls.count);
  }
}

} // namespace Tarvik
