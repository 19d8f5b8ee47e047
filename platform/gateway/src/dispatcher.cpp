#include "dispatcher.hpp"

#include <chrono>
#include <mutex>
#include <vector>

#include <vu/objectbuilder.hpp>

#include "callrecord.hpp"

namespace Tarvik
{

namespace
{

using Kind = vu::ServiceError::Kind;

/// Puts the answers to the entries of a batch together, in their order.
class BatchAnswer
{
public:
  BatchAnswer(std::size_t entries, Dispatcher::Done done) : _done(std::move(done)), _answers(entries), _missing(entries) {}

  void set(std::size_t index, std::string answer)
  {
    {
      const std::lock_guard lock(_mutex);
      _answers[index] = std::move(answer);
      if (--_missing != 0)
        return;
    }
    std::string text;
    for (const auto& entry : _answers)
      if (!entry.empty())
        text += (text.empty() ? "[" : ",") + entry;
    _done(text.empty() ? text : text + "]");
  }

private:
  const Dispatcher::Done _done;
  std::mutex _mutex; // guards the members below until all answers are there
  std::vector<std::string> _answers;
  std::size_t _missing;
};

} // namespace

void Dispatcher::handle(JsonRpc::Message message, const Client& client, const ConnectionMethods& ofConnection, Done done) const
{
  if (message.batch)
  {
    const auto answer = std::make_shared<BatchAnswer>(message.entries.size(), std::move(done));
    for (std::size_t i = 0; i < message.entries.size(); ++i)
      if (auto* const request = std::get_if<JsonRpc::Request>(&message.entries[i]))
        dispatch(*request, client, ofConnection, [answer, i](std::string text) { answer->set(i, std::move(text)); });
      else
        answer->set(i, std::get<std::string>(message.entries[i]));
    return;
  }
  if (auto* const request = std::get_if<JsonRpc::Request>(&message.entries.front()))
    dispatch(*request, client, ofConnection, std::move(done));
  else
    done(std::get<std::string>(message.entries.front()));
}

void Dispatcher::dispatch(const JsonRpc::Request& request, const Client& client, const ConnectionMethods& ofConnection, Done done) const
{
  if (request.notification)
    done = [done](const std::string&) { done({}); };
  if (request.service != "session")
    return call(request, client, done);
  try
  {
    auto answer = ofConnection ? ofConnection(request) : std::nullopt;
    done(answer ? std::move(*answer) : session(request, client));
  }
  catch (...)
  {
    const auto failure = std::current_exception();
    const ZB::Call asked{request.service, request.method, request.params};
    LoggedRequest(client.caller(), asked, vu::leastRoleByName(asked.method)).ended(vu::errorText(failure));
    done(JsonRpc::error(request.id, request.service, request.method, failure));
  }
}

std::string Dispatcher::session(const JsonRpc::Request& request, const Client& client) const
{
  const auto wantsParams = [&request](std::size_t count)
  {
    if (request.params.size() != count)
      throw vu::ServiceError(request.service, request.method,
                             request.fullName() + " takes " + std::to_string(count) + " parameters, " +
                                 std::to_string(request.params.size()) + " given",
                             Kind::InvalidArguments);
  };
  if (request.method == "services")
  {
    wantsParams(0);
    return JsonRpc::result(request.id, _broker->session()->services());
  }
  if (request.method == "whoami")
  {
    wantsParams(0);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return JsonRpc::result(request.id, {{"name", client.identity.name},
                                        {"role", roleName(client.identity.role)},
                                        {"version", TARVIK_VERSION},
                                        {"time", std::chrono::duration_cast<std::chrono::milliseconds>(now).count()}});
  }
  if (request.method == "code")
  {
    wantsParams(0);
    return JsonRpc::result(request.id, {{"code", _sessions->makeCode(client.identity)}, {"seconds", Sessions::codeLife.count()}});
  }
  if (request.method == "describe")
  {
    wantsParams(1);
    if (!request.params[0].is_string())
      throw vu::ServiceError(request.service, request.method, "session.describe takes a service's name", Kind::InvalidArguments);
    return JsonRpc::result(request.id, _broker->session()->require(request.params[0].get<std::string>())->description());
  }
  const bool webSocketOnly = request.method == "connect" || request.method == "disconnect" || request.method == "subscribe";
  throw vu::ServiceError(request.service, request.method,
                         webSocketOnly ? request.fullName() + " needs a WebSocket" : "the session has no method " + request.method,
                         Kind::UnknownMethod);
}

void Dispatcher::call(const JsonRpc::Request& request, const Client& client, const Done& done) const
{
  try
  {
    // The continuation outlives the connection and the gateway: it has values
    // only, and what `done` holds weakly.
    _calls->post({request.service, request.method, request.params}, client.caller())
        .then([id = request.id, service = request.service, method = request.method, done](const vu::Future<vu::Value>& end)
              { done(end.hasError() ? JsonRpc::error(id, service, method, end.exception()) : JsonRpc::result(id, end.value())); });
  }
  catch (...)
  {
    done(JsonRpc::error(request.id, request.service, request.method, std::current_exception()));
  }
}

} // namespace Tarvik
