#include <zb/calllog.hpp>

#include <utility>

#include <vu/caller.hpp>
#include <vu/text.hpp>

namespace ZB
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

/// Whether no service had anything to do with it.
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

class LoggedCall final : public CallWatch
{
public:
  LoggedCall(LoggedRequest request, AdmitsRefusal admitsRefusal) : _request(std::move(request)), _admitsRefusal(std::move(admitsRefusal)) {}

  void underWay() override
  {
    _underWay = true;
    _request.ended("ok");
  }

  void ended(const std::exception_ptr& failure) override
  {
    if (_admitsRefusal && _request.isWritten() && failure && isRefusal(failure) && !_admitsRefusal(_request.address()))
      return;
    if (!_underWay)
      _request.ended(failure ? vu::errorText(failure) : "ok");
    else if (failure)
      _request.ended("begun, then: " + vu::errorText(failure));
  }

private:
  const LoggedRequest _request;
  const AdmitsRefusal _admitsRefusal;
  bool _underWay = false;
};

} // namespace

LoggedRequest::LoggedRequest(std::string category, const Caller& caller, const Call& call, vu::Role least, vu::log::Level level)
    : _category(std::move(category)), _name(caller.name), _address(caller.address), _what(vu::shortened(call.fullName())),
      _level(least == vu::Role::Observer ? vu::log::Level::Debug : level)
{
  if (_level == vu::log::Level::Info)
    _what += "(" + argumentList(call.arguments) + ")";
}

LoggedRequest::LoggedRequest(std::string category, std::string name, std::string address, std::string what)
    : _category(std::move(category)), _name(std::move(name)), _address(std::move(address)), _what(std::move(what)),
      _level(vu::log::Level::Info)
{
}

void LoggedRequest::ended(const std::string& outcome) const
{
  const vu::CallerScope caller(_name); // which the line tells
  vu::log::write(_level, _category, "call",
                 _what + (_address.empty() ? "" : " from " + _address) + ": " + vu::shortened(outcome, longestOutcome));
}

CallObserver logCalls(std::string category, vu::log::Level level, AdmitsRefusal admitsRefusal)
{
  return [category = std::move(category), level, admits = std::move(admitsRefusal)](const Call& call, const Caller& caller, vu::Role least)
  { return std::make_shared<LoggedCall>(LoggedRequest(category, caller, call, least, level), admits); };
}

} // namespace ZB
