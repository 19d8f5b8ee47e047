#pragma once

#include <algorithm>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

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
  Bench(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
  {
    setModuleDescription("does what a client may meet");
    bind("add", "adds", {"left", "right"}, &Bench::add);
    bind("echo", "gives back what it gets", {"value"}, &Bench::echo);
    bind("nothing", "does nothing", {}, &Bench::nothing);
    bind("fail", "fails", {"text"}, &Bench::fail);
    bind("later", "gives a future that finishLater() completes", {"key"}, &Bench::later);
    bind("failAtOnce", "throws instead of giving a future", {}, &Bench::failAtOnce);
    bind("failedFuture", "gives a future that has failed with a plain text", {}, &Bench::failedFuture);
    bind("block", "blocks until unblock()", {}, &Bench::block);
    bind("caller", "tells its caller", {}, &Bench::caller);
    bind("emit", "emits the signal", {"number"}, &Bench::emit);
    bind("raise", "emits eventRaised", {"key", "value"}, &Bench::raise);
    bind("preloadBehavior", "is called by pages as loadBehavior", {"name"}, &Bench::echo);
    bind("stopBehavior", "is called by pages as unloadBehavior", {"name"}, &Bench::echo);
    advertiseSignal("happened", happened);
    advertiseSignal("eventRaised", eventRaised);
  }

  std::string httpGet() override { return getName() == "Silent" ? "" : "<html><body>" + getName() + "</body></html>"; }

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

  vu::Signal<int> happened;
  vu::Signal<std::string, vu::Value> eventRaised;

private:
  template <typename M> void bind(const std::string& name, const std::string& text, std::initializer_list<const char*> parameters, M member)
  {
    functionName(name, getName(), text);
    for (const auto* const parameter : parameters)
      addParam(parameter, "");
    bindMethod(this, member);
  }

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
  http::response<http::string_body> whole;
};

class GatewayFixture : public testing::Test
{
protected:
  static constexpr const char* token = "admin-token";

  GatewayFixture()
  {
    options.port = 0;
    options.limits.close = std::chrono::milliseconds(1000);
    options.access->add(token, {"local", Tarvik::Role::Admin});
    options.access->add("operator-token", {"tablet", Tarvik::Role::Operator});
    options.access->add("observer-token", {"screen", Tarvik::Role::Observer});
  }

  void begin()
  {
    bench = &broker->createModule<Bench>("Bench");
    memory = &broker->createModule<Bench>("ZBMemory");
    broker->createModule<Bench>("Silent");
    gateway = std::make_unique<Tarvik::Gateway>(options);
    url = gateway->listen();
    port = url.substr(url.rfind(':') + 1);
    gateway->start(broker);
  }

  void TearDown() override
  {
    if (bench)
      bench->unblock();
    if (gateway)
      gateway->stop();
    broker->shutdown();
  }

  asio::ip::tcp::socket connect()
  {
    asio::ip::tcp::socket socket(io);
    socket.connect({asio::ip::make_address("127.0.0.1"), static_cast<std::uint16_t>(std::stoi(port))});
    return socket;
  }

  /// A WebSocket as it is, for what a well-behaved client does not do.
  std::unique_ptr<websocket::stream<asio::ip::tcp::socket>> open()
  {
    auto stream = std::make_unique<websocket::stream<asio::ip::tcp::socket>>(connect());
    stream->set_option(websocket::stream_base::decorator([](websocket::request_type& header)
                                                         { header.set(http::field::authorization, std::string("Bearer ") + token); }));
    stream->handshake("127.0.0.1:" + port, "/rpc");
    return stream;
  }

  Answer receive(asio::ip::tcp::socket& socket)
  {
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(socket, buffer, response);
    return {response.result_int(), response.body(), response};
  }

  /// Sends a request as it stands and reads one answer.
  Answer raw(const std::string& text)
  {
    auto socket = connect();
    asio::write(socket, asio::buffer(text));
    return receive(socket);
  }

  /// Asks again and again, with a request in between, which is never to wait.
  template <typename Condition> bool waitUntil(Condition condition)
  {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition() && std::chrono::steady_clock::now() < end)
      EXPECT_EQ(get("/healthz").status, 200U);
    return condition();
  }

  using Fields = std::vector<std::pair<std::string, std::string>>;
  std::string request(const std::string& line, Fields fields = {}, const std::string& body = {}, const std::string& bearer = token) const
  {
    std::string text = line + " HTTP/1.1\r\n";
    const auto has = [&fields](const std::string& name)
    { return std::any_of(fields.begin(), fields.end(), [&](auto& f) { return f.first == name; }); };
    if (!has("Host"))
      fields.emplace_back("Host", "127.0.0.1:" + port);
    if (!bearer.empty())
      fields.emplace_back("Authorization", "Bearer " + bearer);
    if (!body.empty())
      fields.emplace_back("Content-Length", std::to_string(body.size()));
    for (const auto& [name, value] : fields)
      text += name + ": " + value + "\r\n";
    return text + "\r\n" + body;
  }

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
