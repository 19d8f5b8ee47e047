#include "dispatcher.hpp"

#include <chrono>
#include <mutex>
#include <vector>

#include <vu/objectbuilder.hpp>

#include "callrecord.hpp"
#include "failureforms.hpp"

namespace Tarvik
{

namespace
{

using Kind = vu::ServiceError::Kind;

/// Puts the answers to the entries of a batch together, in their order. They
/// wait for the last of them, and so have a bound of their own.
class BatchAnswer
{
public:
  BatchAnswer(std::size_t entries, std::size_t mostBytes, std::shared_ptr<Backlog::Share> unsent, Dispatcher::Done done)
      : _mostBytes(mostBytes), _unsent(std::move(unsent)), _done(std::move(done)), _answers(entries), _missing(entries)
  {
  }
  ~BatchAnswer() { _unsent->remove(_bytes); }
  BatchAnswer(const BatchAnswer&) = delete;
  BatchAnswer& operator=(const BatchAnswer&) = delete;

  void set(std::size_t index, const vu::Value& id, std::string answer)
  {
    bool last = false;
    {
      const std::lock_guard lock(_mutex);
      if (_bytes + answer.size() > _mostBytes)
        answer = JsonRpc::error(id, formOf(Kind::Overloaded).code,
                                "the call was carried out, but the answers of the batch come to more than " + std::to_string(_mostBytes) +
                                    " bytes: ask for this by itself");
      _bytes += answer.size();
      _unsent->add(answer.size());
      _answers[index] = std::move(answer);
      last = --_missing == 0;
    }
    if (last)
      _done(joined());
  }

private:
  std::string joined()
  {
    std::string text;
    for (auto& entry : _answers)
    {
      if (!entry.empty())
        text.append(text.empty() ? "[" : ",").append(entry);
      entry = {};
    }
    return text.empty() ? text : text + "]";
  }

  const std::size_t _mostBytes;
  const std::shared_ptr<Backlog::Share> _unsent;
  const Dispatcher::Done _done;
  std::mutex _mutex; // guards the members below until all answers are there
  std::vector<std::string> _answers;
  std::size_t _missing;
  std::size_t _bytes = 0;
};

} // namespace

void Dispatcher::handle(JsonRpc::Message& message, std::size_t bytes, const Client& client, const ConnectionMethods& ofConnection,
                        Done done)
{
  if (!message.batch)
  {
    if (auto* const request = std::get_if<JsonRpc::Request>(&message.entries.front()))
      dispatch(*request, bytes, client, ofConnection, std::move(done));
    else
      done(std::get<std::string>(message.entries.front()));
    return;
  }
  const auto answer = std::make_shared<BatchAnswer>(message.entries.size(), _batchBytes, client.unsent, std::move(done));
  for (std::size_t i = 0; i < message.entries.size(); ++i)
    if (auto* const request = std::get_if<JsonRpc::Request>(&message.entries[i]))
      dispatch(*request, bytes / message.entries.size(), client, ofConnection,
               [answer, i, id = request->id](std::string text) { answer->set(i, id, std::move(text)); });
    else
      answer->set(i, nullptr, std::move(std::get<std::string>(message.entries[i])));
}

void Dispatcher::dispatch(JsonRpc::Request& request, std::size_t bytes, const Client& client, const ConnectionMethods& ofConnection,
                          Done done)
{
  if (request.notification)
    done = [done](const std::string&) { done({}); };
  if (request.service != "session")
    return call(request, bytes, client, done);
  try
  {
    if (!client.openCalls->enter())
      throw ZB::tooManyCalls(request.service, request.method, *client.openCalls);
    const std::shared_ptr<void> counted(nullptr, [&client](void*) { client.openCalls->leave(); });
    auto answer = ofConnection ? ofConnection(request) : std::nullopt;
    done(answer ? std::move(*answer) : session(request, client));
  }
  catch (...)
  {
    const auto failure = std::current_exception();
    const ZB::Call asked{request.service, request.method, std::move(request.params)};
    LoggedRequest(client.caller(), asked, vu::leastRoleByName(asked.method)).refused(vu::errorText(failure), *_refusals);
    done(JsonRpc::error(request.id, request.service, request.method, failure));
  }
}

std::string Dispatcher::session(const JsonRpc::Request& request, const Client& client)
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
    return JsonRpc::resultOfText(request.id, _descriptions.of(*_broker->session(), request.params[0].get_ref<const std::string&>()));
  }
  const bool webSocketOnly = request.method == "connect" || request.method == "disconnect" || request.method == "subscribe";
  throw vu::ServiceError(request.service, request.method,
                         webSocketOnly ? request.fullName() + " needs a WebSocket" : "the session has no method " + request.method,
                         Kind::UnknownMethod);
}

void Dispatcher::call(JsonRpc::Request& request, std::size_t bytes, const Client& client, const Done& done)
{
  ZB::Call call{request.service, request.method, std::move(request.params)};
  try
  {
    // The continuation outlives the connection and the gateway: it has values
    // only, and what `done` holds weakly.
    _calls->line(call, client.caller(), bytes,
                 [id = request.id, service = request.service, method = request.method, done](const vu::Future<vu::Value>& end)
                 { done(end.hasError() ? JsonRpc::error(id, service, method, end.exception()) : JsonRpc::result(id, end.value())); });
  }
  catch (...)
  {
    request.params = std::move(call.arguments); // which go where the message does
    done(JsonRpc::error(request.id, request.service, request.method, std::current_exception()));
  }
}

} // namespace Tarvik
