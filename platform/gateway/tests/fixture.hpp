#pragma once

#include <atomic>
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
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/websocket.hpp>

#include <gateway/gateway.hpp>
#include <testing/errors.hpp>
#include <testing/journal.hpp>
#include <testing/waiting.hpp>
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

using TestSupport::eventually;
using TestSupport::patience;
using TestSupport::serviceErrorOf;
using Kind = vu::ServiceError::Kind;

/// Stands for the behavior manager and the memory at once: `name` decides.
class Bench final : public ZB::ZBModule
{
public:
  Bench(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name);

  std::string httpGet() override { return getName() == "Silent" ? "" : "<html><body>" + getName() + filler + "</body></html>"; }

  int add(const int& left, const int& right) { return left + right; }
  vu::Value echo(const vu::Value& value) { return value; }
  std::string fill()
  {
    ++filled;
    return filler;
  }
  void nothing() {}
  void fail(const std::string& text) { throw ZB::ZBError(getName(), "fail", text); }
  vu::Future<int> later(const std::string& key)
  {
    const vu::Promise<int> promise(getParentBroker()->pool());
    {
      const std::lock_guard lock(_mutex);
      _later.insert_or_assign(key, promise);
    }
    seen.add("later " + key);
    return promise.future();
  }
  vu::Future<int> failedFuture()
  {
    const vu::Promise<int> promise(getParentBroker()->pool());
    promise.setError("plain text");
    return promise.future();
  }
  void block()
  {
    seen.add("block " + std::to_string(++_blocked));
    unblocked.wait();
  }
  std::string caller() { return vu::currentCaller(); }
  void emit(const int& number) { happened(number); }
  void raise(const std::string& key, const vu::Value& value) { eventRaised(key, value); }

  bool waitForLater(const std::string& key) { return seen.waitFor("later " + key, patience); }
  /// Waits for the call, then completes its future.
  void finishLater(const std::string& key, int value)
  {
    ASSERT_TRUE(waitForLater(key));
    std::unique_lock lock(_mutex);
    const auto promise = _later.at(key);
    lock.unlock();
    promise.setValue(value);
  }
  bool waitForBlocked(int count) { return seen.waitFor("block " + std::to_string(count), patience); }

  std::atomic<int> filled = 0;
  TestSupport::Event unblocked;
  TestSupport::Journal seen;
  std::string filler; ///< makes the page longer, and is what fill() gives
  vu::Signal<int> happened;
  vu::Signal<std::string, vu::Value> eventRaised;

private:
  template <typename M>
  void bind(const std::string& name, const std::string& text, std::initializer_list<const char*> parameters, M member,
            std::optional<vu::Role> access = {});

  std::mutex _mutex; // guards _later
  std::map<std::string, vu::Promise<int>> _later;
  std::atomic<int> _blocked = 0;
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

  void send(const std::string& text) { _stream->write(asio::buffer(text)); }
  /// The next message; throws when the connection has ended.
  vu::Value receive();
  vu::Value ask(const std::string& text)
  {
    send(text);
    return receive();
  }
  /// Reads all that still comes.
  websocket::close_reason reasonOfEnd();
  /// Without a word.
  void hangUp() { _stream->next_layer().close(); }

private:
  std::unique_ptr<websocket::stream<asio::ip::tcp::socket, false>> _stream;
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
  Answer receive(asio::ip::tcp::socket& socket) { return receive(socket, beast::flat_buffer()); }
  /// `buffer` keeps what has come of the next answer.
  Answer receive(asio::ip::tcp::socket& socket, beast::flat_buffer&& buffer);
  /// Sends a request as it stands and reads one answer.
  Answer raw(const std::string& text);

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
  static std::string call(const std::string& method, const std::string& params = "[]")
  {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":)" + params + "}";
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
