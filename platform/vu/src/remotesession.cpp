#include <vu/remotesession.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include <network/jsonrpccode.hpp>
#include <vu/line.hpp>
#include <vu/log.hpp>

#include "websocketchannel.hpp"

namespace vu
{

namespace
{

constexpr std::chrono::milliseconds pollInterval{100};

std::exception_ptr lostError(const std::string& method, const std::string& reason)
{
  const auto dot = method.find('.');
  return std::make_exception_ptr(ServiceError(method.substr(0, dot), dot == std::string::npos ? "" : method.substr(dot + 1),
                                              "the connection to the host has ended: " + reason, ServiceError::Kind::ConnectionLost));
}

ServiceError::Kind kindOf(int code, const Value& data)
{
  switch (code)
  {
  case network::MethodNotFound:
    return data.value("unknown", "") == "service" ? ServiceError::Kind::UnknownService : ServiceError::Kind::UnknownMethod;
  case network::InvalidParams:
    return ServiceError::Kind::InvalidArguments;
  case network::NotAllowed:
    return ServiceError::Kind::NotAllowed;
  case network::Overloaded:
    return ServiceError::Kind::Overloaded;
  default:
    return ServiceError::Kind::Service;
  }
}

/// The error of an answer; `called` is the method that was called.
ServiceError toError(const Value& error, const std::string& called)
{
  const auto data = error.contains("data") && error["data"].is_object() ? error["data"] : Value::object();
  const auto dot = called.find('.');
  return ServiceError(data.value("module", called.substr(0, dot)),
                      data.value("method", dot == std::string::npos ? "" : called.substr(dot + 1)),
                      error.value("message", "an error without a message"), kindOf(error.value("code", 0), data));
}

} // namespace

struct RemoteSession::Implementation : std::enable_shared_from_this<Implementation>
{
  using Subscriber = detail::Subscriber<Value>;
  using NotificationCallback = std::function<void(const std::string& method, const Value& params)>;

  struct OpenCall
  {
    std::string method;
    Promise<Value> promise;
    /// Runs on the channel's thread before the promise is completed, and
    /// before anything that the host sent later is looked at.
    std::function<void(const Value& result)> answered;
  };

  struct Connection
  {
    std::uint64_t remote; ///< the link's number on the wire
    std::shared_ptr<Subscriber> subscriber;
  };

  class RemoteObject;

  Future<Value> call(const std::string& method, Value params, std::function<void(const Value&)> answered = {})
  {
    const Promise<Value> promise(pool);
    std::uint64_t id = 0;
    {
      const std::lock_guard lock(mutex);
      if (ended)
      {
        promise.setException(lostError(method, endReason));
        return promise.future();
      }
      id = ++lastId;
      calls.emplace(id, OpenCall{method, promise, std::move(answered)});
    }
    std::string text;
    try
    {
      text = Value{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(params)}}.dump();
    }
    catch (const Value::exception& error)
    {
      const auto dot = method.find('.');
      take(id);
      promise.setException(std::make_exception_ptr(
          ServiceError(method.substr(0, dot), dot == std::string::npos ? "" : method.substr(dot + 1),
                       std::string("the arguments cannot be sent: ") + error.what(), ServiceError::Kind::InvalidArguments)));
      return promise.future();
    }
    if (!channel->send(std::move(text)))
    {
      const auto dot = method.find('.');
      take(id);
      promise.setException(std::make_exception_ptr(
          ServiceError(method.substr(0, dot), dot == std::string::npos ? "" : method.substr(dot + 1),
                       "too many calls wait to be sent: the host, or the way to it, does not keep up", ServiceError::Kind::Overloaded)));
    }
    return promise.future();
  }

  /// A link of this process for a connection that the host makes for `method`.
  Future<SignalLink> link(const std::string& method, Value params, SignalBase::ValuesCallback callback)
  {
    const auto local = detail::nextSignalLink();
    const Promise<SignalLink> promise(pool);
    auto subscriber = std::make_shared<Subscriber>(std::move(callback));
    call(method, std::move(params),
         [self = weak_from_this(), local, subscriber](const Value& result)
         {
           if (const auto alive = self.lock())
           {
             const auto remote = result.get<std::uint64_t>();
             const std::lock_guard lock(alive->mutex);
             alive->connections.emplace(local, Connection{remote, subscriber});
             alive->localLinks.emplace(remote, local);
           }
         })
        .forward(promise, [local](const Value&) { return local; });
    return promise.future();
  }

  void disconnect(SignalLink local)
  {
    Connection connection;
    {
      const std::lock_guard lock(mutex);
      const auto found = connections.find(local);
      if (found == connections.end())
        return;
      connection = std::move(found->second);
      connections.erase(found);
      localLinks.erase(connection.remote);
    }
    connection.subscriber->close();
    call("session.disconnect", Value::array({connection.remote}));
  }

  OpenCall take(std::uint64_t id)
  {
    const std::lock_guard lock(mutex);
    const auto found = calls.find(id);
    if (found == calls.end())
      throw std::out_of_range("an answer to no open call");
    auto call = std::move(found->second);
    calls.erase(found);
    return call;
  }

  void onMessage(const std::string& text)
  {
    try
    {
      const auto message = Value::parse(text);
      if (message.contains("method"))
        onNotification(message.at("method").get<std::string>(), message.at("params"));
      else
        onAnswer(message);
    }
    catch (const std::exception& error)
    {
      log::warning("session", __func__, std::string("a message of the host makes no sense and is ignored: ") + error.what());
    }
  }

  void onAnswer(const Value& message)
  {
    const auto call = take(message.at("id").get<std::uint64_t>());
    try
    {
      if (message.contains("error"))
        throw toError(message["error"], call.method);
      const auto& result = message.at("result");
      if (call.answered)
        call.answered(result);
      call.promise.setValue(result);
    }
    catch (...)
    {
      call.promise.setException(std::current_exception());
    }
  }

  void onNotification(const std::string& method, const Value& params)
  {
    std::shared_ptr<Subscriber> subscriber;
    NotificationCallback callback;
    {
      const std::lock_guard lock(mutex);
      callback = notificationCallback;
      if (const auto local = localLinks.find(params.at("link").get<std::uint64_t>()); local != localLinks.end())
        subscriber = connections.at(local->second).subscriber;
    }
    if (callback)
      line->push([callback, method, params] { callback(method, params); });
    if (subscriber)
      subscriber->run(method == "signal" ? params.at("arguments") : Value::array({params.at("key"), params.at("value")}));
  }

  void onClosed(const std::string& reason)
  {
    std::map<std::uint64_t, OpenCall> open;
    std::function<void(const std::string&)> callback;
    {
      const std::lock_guard lock(mutex);
      if (ended)
        return;
      ended = true;
      endReason = reason;
      open.swap(calls);
      callback.swap(closedCallback);
    }
    for (const auto& [id, call] : open)
      call.promise.setException(lostError(call.method, reason));
    if (callback)
      line->push([callback, reason] { callback(reason); });
  }

  /// Asks for the service until it is there or the time is over.
  void lookUp(const std::string& name, const Promise<Object>& promise, std::optional<std::chrono::steady_clock::time_point> end);

  const std::shared_ptr<ThreadPool> pool = std::make_shared<ThreadPool>();
  /// Of all callbacks of the session itself.
  const std::shared_ptr<Line> line = Line::create(pool, "notifications of a session");
  std::unique_ptr<WebSocketChannel> channel;

  mutable std::mutex mutex; // guards the members below
  bool ended = false;
  std::string endReason;
  std::uint64_t lastId = 0;
  std::map<std::uint64_t, OpenCall> calls;
  std::map<SignalLink, Connection> connections;
  std::map<std::uint64_t, SignalLink> localLinks; ///< by number on the wire
  NotificationCallback notificationCallback;
  std::function<void(const std::string& reason)> closedCallback;
};

/// It may outlive the session: its calls then fail.
class RemoteSession::Implementation::RemoteObject final : public ObjectBackend
{
public:
  RemoteObject(std::shared_ptr<Implementation> session, std::string name) : _session(std::move(session)), _name(std::move(name)) {}

  const std::string& name() const override { return _name; }
  ObjectDescription description() override
  {
    return _session->call("session.describe", Value::array({_name})).value().get<ObjectDescription>();
  }
  Future<Value> call(const std::string& method, const Value& arguments) override
  {
    return _session->call(name() + "." + method, arguments);
  }
  Future<Value> post(const std::string& method, Value arguments) override
  {
    return _session->call(name() + "." + method, std::move(arguments));
  }
  Future<SignalLink> connect(const std::string& signal, SignalBase::ValuesCallback callback) override
  {
    return _session->link("session.connect", Value::array({name(), signal}), std::move(callback));
  }
  void disconnect(SignalLink link) override { _session->disconnect(link); }
  const std::shared_ptr<ThreadPool>& pool() const override { return _session->pool; }

private:
  const std::shared_ptr<Implementation> _session;
  const std::string _name;
};

void RemoteSession::Implementation::lookUp(const std::string& name, const Promise<Object>& promise,
                                           std::optional<std::chrono::steady_clock::time_point> end)
{
  call("session.services", Value::array())
      .then(
          [self = weak_from_this(), name, promise, end](const Future<Value>& answer)
          {
            const auto session = self.lock();
            if (!session)
              return;
            try
            {
              const auto names = answer.value().get<std::vector<std::string>>();
              if (std::find(names.begin(), names.end(), name) != names.end())
                promise.setValue(Object(std::make_shared<RemoteObject>(session, name)));
              else if (end && std::chrono::steady_clock::now() >= *end)
                throw unknownService(name);
              else
                session->pool->postAfter(pollInterval, [session, name, promise, end] { session->lookUp(name, promise, end); });
            }
            catch (...)
            {
              promise.setException(std::current_exception());
            }
          });
}

RemoteSession::RemoteSession(const Options& options) : _implementation(std::make_shared<Implementation>())
{
  auto& session = *_implementation;
  // The channel's thread may run the handlers before connect() has returned,
  // but nothing comes in that nobody asked for.
  session.channel = WebSocketChannel::connect(options, {[&session](const std::string& text) { session.onMessage(text); },
                                                        [&session](const std::string& reason) { session.onClosed(reason); }});
}

RemoteSession::~RemoteSession()
{
  setClosedCallback({});
  setNotificationCallback({});
  _implementation->channel->close();
  _implementation->onClosed("the session was closed");
  _implementation->pool->close();
}

std::vector<std::string> RemoteSession::services()
{
  return call("session.services", Value::array()).value().get<std::vector<std::string>>();
}

Future<Object> RemoteSession::service(const std::string& name, const std::string&, int timeoutMs)
{
  if (timeoutMs == 0)
    return makeReadyFuture<Object>(Object(std::make_shared<Implementation::RemoteObject>(_implementation, name)), _implementation->pool);
  const Promise<Object> promise(_implementation->pool);
  std::optional<std::chrono::steady_clock::time_point> end;
  if (timeoutMs > 0)
    end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  _implementation->lookUp(name, promise, end);
  return promise.future();
}

Future<Value> RemoteSession::call(const std::string& method, const Value& params) { return _implementation->call(method, params); }

Future<SignalLink> RemoteSession::subscribe(const std::string& key,
                                            std::function<void(const std::string& key, const Value& value)> callback)
{
  return _implementation->link("session.subscribe", Value::array({key}),
                               [line = _implementation->line, callback = std::move(callback)](const Value& event)
                               { line->push([callback, event] { callback(event[0].get<std::string>(), event[1]); }); });
}

void RemoteSession::setNotificationCallback(std::function<void(const std::string& method, const Value& params)> callback)
{
  const std::lock_guard lock(_implementation->mutex);
  _implementation->notificationCallback = std::move(callback);
}

void RemoteSession::setClosedCallback(std::function<void(const std::string& reason)> callback)
{
  std::string reason;
  {
    const std::lock_guard lock(_implementation->mutex);
    if (!_implementation->ended)
    {
      _implementation->closedCallback = std::move(callback);
      return;
    }
    reason = _implementation->endReason;
  }
  if (callback)
    _implementation->line->push([callback = std::move(callback), reason] { callback(reason); });
}

bool RemoteSession::isConnected() const
{
  const std::lock_guard lock(_implementation->mutex);
  return !_implementation->ended;
}

} // namespace vu
