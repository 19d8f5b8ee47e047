#include "callrecord.hpp"

#include <utility>

namespace Tarvik
{

namespace
{

class CallRecord final : public ZB::CallWatch
{
public:
  CallRecord(std::shared_ptr<Metrics> metrics, std::shared_ptr<ZB::CallWatch> log) : _metrics(std::move(metrics)), _log(std::move(log))
  {
    _metrics->callBegan();
  }

  void underWay() override { _log->underWay(); }

  void ended(const std::exception_ptr& failure) override
  {
    _metrics->callEnded(_begin, failure);
    _log->ended(failure);
  }

private:
  const Metrics::Clock::time_point _begin = Metrics::Clock::now();
  const std::shared_ptr<Metrics> _metrics;
  const std::shared_ptr<ZB::CallWatch> _log;
};

} // namespace

ZB::CallObserver recordCalls(std::shared_ptr<Metrics> metrics)
{
  return [metrics = std::move(metrics), log = ZB::logCalls("gateway")](const ZB::Call& call, const ZB::Caller& caller, vu::Role least)
  { return std::make_shared<CallRecord>(metrics, log(call, caller, least)); };
}

} // namespace Tarvik
