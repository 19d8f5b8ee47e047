#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <gateway/gateway.hpp>
#include <vu/caller.hpp>
#include <vu/remotesession.hpp>
#include <zb/zberror.hpp>
#include <zb/zbmodule.hpp>

/// A real broker and gateway, with a module that does whatever a client may
/// meet.
namespace GatewayTest
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

constexpr std::chrono::seconds patience{20};

/// Stands for the behavior manager and the memory at once: `name` decides.
class Bench final : public ZB::ZBModule
{
public:
  Bench(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name);

  std::string httpGet() override { return getName() == "Silent" ? "" : "<html><body>" + getName() + filler + "</body></html>"; }

  int add(const int& left, const int& right) { return left + right; }
  vu::Value echo(const vu::Value& value) { return value; }
  void nothing() {}
  void fail(const std::string& text) { throw ZB::ZBError(getName(), "fail", text); }
  vu::Future<int> later(const std::string& key)
  {
    const std::lock_guard lock(_mutex);
    _later.insert_or_assign(key, vu::Promise<int>(getParentBroker()->pool()));
    _changed.notify_all();
    return _later.at(key).future();
  }
  vu::Future<int> failAtOnce() { throw ZB::ZBError(getName(), "failAtOnce", "not today"); }
  vu::Future<int> failedFuture()
  {
    const vu::Promise<int> promise(getParentBroker()->pool());
    promise.setError("plain text");
    return promise.future();
  }
  void block()
  {
    std::unique_lock lock(_mutex);
    ++_blocked;
    _changed.notify_all();
    _changed.wait_for(lock, patience, [this] { return _unblocked; });
  }
  std::string caller() { return vu::currentCaller(); }
  void emit(const int& number) { happened(number); }
  void raise(const std::string& key, const vu::Value& value) { eventRaised(key, value); }

  bool waitForLater(const std::string& key)
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, patience, [&] { return _later.count(key) != 0; });
  }
  /// Waits for the call, then completes its future.
  void finishLater(const std::string& key, int value)
  {
    ASSERT_TRUE(waitForLater(key));
    std::unique_lock lock(_mutex);
    const auto promise = _later.at(key);
    lock.unlock();
    promise.setValue(value);
  }
  bool waitForBlocked(int count)
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, patience, [&] { return _blocked >= count; });
  }
  void unblock()
  {
    const std::lock_guard lock(_mutex);
    _unblocked = true;
    _changed.notify_all();
  }

  std::string filler; ///< makes the page longer
  vu::Signal<int> happened;
  vu::Signal<std::string, vu::Value> eventRaised;

private:
  template <typename M>
  void bind(const std::string& name, const std::string& text, std::initializer_list<const char*> parameters, M member);

  std::mutex _mutex; // guards the members below
  std::condition_variable _changed;
  std::map<std::string, vu::Promise<int>> _later;
  int _blocked = 0;
  bool _unblocked = false;
};

struct Answer
{
  unsigned status = 0;
  std::string body;
  http::fields header;
};

/// A WebSocket as it is, for what a well-behaved client does not do.
class RawWebSocket
{
public:
  RawWebSocket(asio::ip::tcp::socket socket, const std::string& port, const std::string& token);
  ~RawWebSocket();

  void send(const std::string& text);
  /// The next message; throws when the connection has ended.
  vu::Value receive();
  vu::Value ask(const std::string& text);
  /// Reads all that still comes.
  websocket::close_reason reasonOfEnd();
  /// Without a word.
  void hangUp();

private:
  struct Implementation;
  const std::unique_ptr<Implementation> _implementation;
};

class GatewayFixture : public testing::Test
{
protected:
  static constexpr const char* token = "admin-token";

  GatewayFixture();
  ~GatewayFixture() override;

  void begin();
  void TearDown() override;

  asio::ip::tcp::socket connect();
  RawWebSocket open() { return {connect(), port, token}; }
  Answer receive(asio::ip::tcp::socket& socket);
  /// Sends a request as it stands and reads one answer.
  Answer raw(const std::string& text);

  /// Asks again and again, with a request in between, which is never to wait.
  template <typename Condition> bool waitUntil(Condition condition)
  {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition() && std::chrono::steady_clock::now() < end)
      EXPECT_EQ(get("/healthz").status, 200U);
    return condition();
  }

  using Fields = std::vector<std::pair<std::string, std::string>>;
  std::string request(const std::string& line, Fields fields = {}, const std::string& body = {}, const std::string& bearer = token) const;

  Answer get(const std::string& target, Fields fields = {}, const std::string& bearer = token)
  {
    return raw(request("GET " + target, fields, {}, bearer));
  }
  Answer post(const std::string& body, Fields fields = {}, const std::string& bearer = token)
  {
    return raw(request("POST /rpc", fields, body, bearer));
  }
  vu::Value rpc(const std::string& body, const std::string& bearer = token) { return vu::Value::parse(post(body, {}, bearer).body); }
  vu::RemoteSession::Options remote(const std::string& bearer = token) const { return {url, bearer, std::chrono::milliseconds(10000), {}}; }

  asio::io_context io;
  Tarvik::Gateway::Options options;
  std::shared_ptr<ZB::ZBBroker> broker = ZB::ZBBroker::create();
  Bench* bench = nullptr;
  Bench* memory = nullptr;
  std::unique_ptr<Tarvik::Gateway> gateway;
  std::string url;
  std::string port;
};

} // namespace GatewayTest
