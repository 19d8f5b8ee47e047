#include "callrecord.hpp"

#include <utility>

#include <vu/caller.hpp>
#include <vu/future.hpp>

namespace Tarvik
{

namespace
{

constexpr std::size_t longestText = 32;
constexpr std::size_t mostArguments = 8;

std::string shortened(const vu::Value& value)
{
  if (value.is_structured())
    return value.empty() ? value.dump() : value.is_array() ? "[...]" : "{...}";
  if (value.is_string() && value.get_ref<const std::string&>().size() > longestText)
  {
    auto beginning = value.get_ref<const std::string&>().substr(0, longestText / 2);
    return shortened(beginning.append("..."));
  }
  return value.dump(-1, ' ', false, vu::Value::error_handler_t::replace);
}

std::string argumentList(const vu::Value& arguments)
{
  std::string text;
  for (std::size_t i = 0; i < arguments.size(); ++i)
  {
    text += i == 0 ? "" : ", ";
    if (i == mostArguments)
      return text + "...";
    text += shortened(arguments[i]);
  }
  return text;
}

class CallRecord final : public ZB::CallWatch
{
public:
  CallRecord(std::shared_ptr<Metrics> metrics, LoggedRequest logged) : _metrics(std::move(metrics)), _logged(std::move(logged))
  {
    _metrics->callBegan();
  }

  void underWay() override
  {
    _underWay = true;
    _logged.ended("ok");
  }

  void ended(const std::exception_ptr& failure) override
  {
    _metrics->callEnded(_begin, failure);
    if (!_underWay)
      _logged.ended(failure ? vu::errorText(failure) : "ok");
    else if (failure)
      _logged.ended("begun, then: " + vu::errorText(failure));
  }

private:
  const Metrics::Clock::time_point _begin = Metrics::Clock::now();
  const std::shared_ptr<Metrics> _metrics;
  const LoggedRequest _logged;
  bool _underWay = false;
};

} // namespace

LoggedRequest::LoggedRequest(const ZB::Caller& caller, const ZB::Call& call, vu::Role least)
    : _name(caller.name), _address(caller.address), _what(call.fullName()),
      _level(least == vu::Role::Observer ? vu::log::Level::Debug : vu::log::Level::Info)
{
  if (_level == vu::log::Level::Info)
    _what += "(" + argumentList(call.arguments) + ")";
}

LoggedRequest::LoggedRequest(const Client& client, std::string what)
    : _name(client.identity.name), _address(client.address), _what(std::move(what)), _level(vu::log::Level::Info)
{
}

void LoggedRequest::ended(const std::string& outcome) const
{
  const vu::CallerScope caller(_name); // which the line tells
  vu::log::write(_level, "gateway", "call", _what + " from " + _address + ": " + outcome);
}

ZB::CallObserver recordCalls(std::shared_ptr<Metrics> metrics)
{
  return [metrics = std::move(metrics)](const ZB::Call& call, const ZB::Caller& caller, vu::Role least)
  { return std::make_shared<CallRecord>(metrics, LoggedRequest(caller, call, least)); };
}

} // namespace Tarvik
