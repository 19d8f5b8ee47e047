#include "dispatcher.hpp"

#include <chrono>
#include <mutex>
#include <vector>

#include <vu/caller.hpp>
#include <vu/objectbuilder.hpp>

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

void Dispatcher::handle(JsonRpc::Message message, const Client& client, const std::shared_ptr<OpenCalls>& open, const Own& own,
                        Done done) const
{
  if (message.batch)
  {
    const auto answer = std::make_shared<BatchAnswer>(message.entries.size(), std::move(done));
    for (std::size_t i = 0; i < message.entries.size(); ++i)
      if (auto* const request = std::get_if<JsonRpc::Request>(&message.entries[i]))
        dispatch(*request, client, open, own, [answer, i](std::string text) { answer->set(i, std::move(text)); });
      else
        answer->set(i, std::get<std::string>(message.entries[i]));
    return;
  }
  if (auto* const request = std::get_if<JsonRpc::Request>(&message.entries.front()))
    dispatch(*request, client, open, own, std::move(done));
  else
    done(std::get<std::string>(message.entries.front()));
}

void Dispatcher::dispatch(const JsonRpc::Request& request, const Client& client, const std::shared_ptr<OpenCalls>& open, const Own& own,
                          Done done) const
{
  if (request.notification)
    done = [done](const std::string&) { done({}); };
  const auto begin = Metrics::Clock::now();
  const bool counted = request.service != "session";
  if (counted)
    _metrics->callBegan();
  try
  {
    if (request.service == "session")
    {
      auto answer = own ? own(request) : std::nullopt;
      return done(answer ? std::move(*answer) : session(request, client));
    }
    if (open->count >= _maximumOpenCalls)
      throw vu::ServiceError(request.service, request.method,
                             "this connection has " + std::to_string(_maximumOpenCalls) + " calls open already: wait for an answer",
                             Kind::Overloaded);
    // Counted by this token, whatever becomes of the call.
    ++open->count;
    std::shared_ptr<void> place(nullptr, [open](void*) { --open->count; });
    call(request, client, begin,
         [place, done](std::string text) mutable
         {
           place.reset();
           done(std::move(text));
         });
  }
  catch (...)
  {
    const auto failure = std::current_exception();
    if (counted)
      _metrics->callEnded(begin, failure);
    LoggedRequest(client, request.service, request.method, request.params).ended(vu::errorText(failure));
    done(JsonRpc::error(request.id, request, failure));
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
  if (request.method == "describe")
  {
    wantsParams(1);
    if (!request.params[0].is_string())
      throw vu::ServiceError(request.service, request.method, "session.describe takes a service's name", Kind::InvalidArguments);
    const auto name = request.params[0].get<std::string>();
    const auto object = _broker->session()->find(name);
    if (!object)
      throw vu::ServiceError(name, "", "there is no service " + name, Kind::UnknownService);
    return JsonRpc::result(request.id, object->description());
  }
  const bool webSocketOnly = request.method == "connect" || request.method == "disconnect" || request.method == "subscribe";
  throw vu::ServiceError(request.service, request.method,
                         webSocketOnly ? request.fullName() + " needs a WebSocket" : "the session has no method " + request.method,
                         Kind::UnknownMethod);
}

void Dispatcher::call(const JsonRpc::Request& request, const Client& client, Metrics::Clock::time_point begin, const Done& done) const
{
  const auto role = client.identity.role;
  if (!mayCall(role, request.service, request.method))
    throw vu::ServiceError(request.service, request.method,
                           "the role " + std::string(roleName(role)) + " may not call " + request.fullName(), Kind::NotAllowed);
  const auto object = _broker->session()->find(request.service);
  if (!object)
    throw vu::ServiceError(request.service, request.method, "there is no service " + request.service, Kind::UnknownService);
  const vu::CallerScope caller(client.identity.name);
  const LoggedRequest logged(client, request.service, request.method, request.params);
  // The continuation outlives the connection and the gateway: it has values
  // only, and what `done` holds weakly.
  object->post(request.method, request.params)
      .then(
          [id = request.id, service = request.service, method = request.method, logged, done, begin,
           metrics = _metrics](const vu::Future<vu::Value>& result)
          {
            metrics->callEnded(begin, result.exception());
            std::string answer;
            if (result.hasError())
            {
              logged.ended(result.error());
              JsonRpc::Request called;
              called.service = service;
              called.method = method;
              answer = JsonRpc::error(id, called, result.exception());
            }
            else
            {
              logged.ended("ok");
              answer = JsonRpc::result(id, result.value());
            }
            done(std::move(answer));
          });
}

} // namespace Tarvik
