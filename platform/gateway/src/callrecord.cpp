#include "callrecord.hpp"

#include <utility>

#include <vu/caller.hpp>
#include <vu/future.hpp>
#include <vu/text.hpp>

namespace Tarvik
{

namespace
{

constexpr std::size_t longestText = 32;
constexpr std::size_t mostArguments = 8;
constexpr std::size_t longestOutcome = 500;

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

/// Whether no service had anything to do with it: such calls cost a client
/// nothing, and come in any number.
bool isRefusal(const std::exception_ptr& failure)
{
  try
  {
    std::rethrow_exception(failure);
  }
  catch (const vu::ServiceError& error)
  {
    return error.kind() != vu::ServiceError::Kind::Service;
  }
  catch (...)
  {
    return false;
  }
}

class CallRecord final : public ZB::CallWatch
{
public:
  CallRecord(std::shared_ptr<Metrics> metrics, std::shared_ptr<RefusalLog> refusals, LoggedRequest logged)
      : _metrics(std::move(metrics)), _refusals(std::move(refusals)), _logged(std::move(logged))
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
    if (!_underWay && failure && isRefusal(failure))
      _logged.refused(vu::errorText(failure), *_refusals);
    else if (!_underWay)
      _logged.ended(failure ? vu::errorText(failure) : "ok");
    else if (failure)
      _logged.ended("begun, then: " + vu::errorText(failure));
  }

private:
  const Metrics::Clock::time_point _begin = Metrics::Clock::now();
  const std::shared_ptr<Metrics> _metrics;
  const std::shared_ptr<RefusalLog> _refusals;
  const LoggedRequest _logged;
  bool _underWay = false;
};

} // namespace

LoggedRequest::LoggedRequest(const ZB::Caller& caller, const ZB::Call& call, vu::Role least)
    : _name(caller.name), _address(caller.address), _what(vu::shortened(call.fullName())),
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
  vu::log::write(_level, "gateway", "call", _what + " from " + _address + ": " + vu::shortened(outcome, longestOutcome));
}

void LoggedRequest::refused(const std::string& outcome, RefusalLog& refusals) const
{
  // What is not written anyway is not left out either.
  if (_level > vu::log::level() || refusals.admits(_address.substr(0, _address.rfind(':'))))
    ended(outcome);
}

ZB::CallObserver recordCalls(std::shared_ptr<Metrics> metrics, std::shared_ptr<RefusalLog> refusals)
{
  return [metrics = std::move(metrics), refusals = std::move(refusals)](const ZB::Call& call, const ZB::Caller& caller, vu::Role least)
  { return std::make_shared<CallRecord>(metrics, refusals, LoggedRequest(caller, call, least)); };
}

} // namespace Tarvik
