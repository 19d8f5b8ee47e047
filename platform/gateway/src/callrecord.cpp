#include "callrecord.hpp"

#include <utility>

namespace Tarvik
{

namespace
{

/// An address without its port.
std::string hostOf(const std::string& address) { return address.substr(0, address.rfind(':')); }

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

void LoggedRequest::refused(const std::string& outcome, RefusalLog& refusals) const
{
  if (!isWritten() || refusals.admits(hostOf(address())))
    ended(outcome);
}

ZB::CallObserver recordCalls(std::shared_ptr<Metrics> metrics, std::shared_ptr<RefusalLog> refusals)
{
  const auto admits = [refusals = std::move(refusals)](const std::string& address) { return refusals->admits(hostOf(address)); };
  return [metrics = std::move(metrics),
          log = ZB::logCalls("gateway", vu::log::Level::Info, admits)](const ZB::Call& call, const ZB::Caller& caller, vu::Role least)
  { return std::make_shared<CallRecord>(metrics, log(call, caller, least)); };
}

} // namespace Tarvik
