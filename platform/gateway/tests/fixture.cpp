#include "fixture.hpp"

#include <algorithm>

#include <boost/asio/connect.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace GatewayTest
{

template <typename M>
void Bench::bind(const std::string& name, const std::string& text, std::initializer_list<const char*> parameters, M member,
                 std::optional<vu::Role> access)
{
  functionName(name, getName(), text);
  for (const auto* const parameter : parameters)
    addParam(parameter, "");
  if (access)
    setAccess(*access);
  bindMethod(this, member);
}

Bench::Bench(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
{
  setModuleDescription("does what a client may meet");
  bind("add", "adds", {"left", "right"}, &Bench::add);
  bind("echo", "gives back what it gets", {"value"}, &Bench::echo);
  bind("fill", "gives the filler", {}, &Bench::fill);
  bind("nothing", "does nothing", {}, &Bench::nothing);
  bind("fail", "fails", {"text"}, &Bench::fail);
  bind("later", "gives a future that finishLater() completes", {"key"}, &Bench::later);
  bind("failedFuture", "gives a future that has failed with a plain text", {}, &Bench::failedFuture);
  bind("block", "blocks until it is unblocked", {}, &Bench::block);
  bind("caller", "tells its caller", {}, &Bench::caller, vu::Role::Observer);
  bind("emit", "emits the signal", {"number"}, &Bench::emit);
  bind("raise", "emits eventRaised", {"key", "value"}, &Bench::raise, vu::Role::Admin);
  bind("preloadBehavior", "is called by pages as loadBehavior", {"name"}, &Bench::echo);
  bind("stopBehavior", "is called by pages as unloadBehavior", {"name"}, &Bench::echo);
  advertiseSignal("happened", happened);
  advertiseSignal("eventRaised", eventRaised);
}

RawWebSocket::RawWebSocket(asio::ip::tcp::socket socket, const std::string& port, const std::string& token)
    : _stream(std::make_unique<websocket::stream<asio::ip::tcp::socket, false>>(std::move(socket)))
{
  _stream->set_option(websocket::stream_base::decorator([&token](websocket::request_type& header)
                                                        { header.set(http::field::authorization, "Bearer " + token); }));
  _stream->handshake("127.0.0.1:" + port, "/rpc");
}

vu::Value RawWebSocket::receive()
{
  beast::flat_buffer buffer;
  _stream->read(buffer);
  return vu::Value::parse(beast::buffers_to_string(buffer.data()));
}

websocket::close_reason RawWebSocket::reasonOfEnd()
{
  beast::error_code error;
  for (beast::flat_buffer buffer; !error; buffer.clear())
    _stream->read(buffer, error);
  return _stream->reason();
}

GatewayFixture::GatewayFixture()
{
  options.port = 0;
  options.limits.close = std::chrono::milliseconds(1000);
  options.access->add(token, {"local", Tarvik::Role::Admin});
  options.access->add("operator-token", {"tablet", Tarvik::Role::Operator});
  options.access->add("observer-token", {"screen", Tarvik::Role::Observer});
}

GatewayFixture::~GatewayFixture() = default;

void GatewayFixture::begin()
{
  bench = &broker->createModule<Bench>("Bench");
  memory = &broker->createModule<Bench>("ZBMemory");
  broker->createModule<Bench>("Silent");
  gateway = std::make_unique<Tarvik::Gateway>(options);
  url = gateway->listen();
  port = url.substr(url.rfind(':') + 1);
  gateway->start(broker);
}

void GatewayFixture::TearDown()
{
  if (bench)
    bench->unblocked.set();
  if (gateway)
    gateway->stop();
  broker->shutdown();
}

asio::ip::tcp::socket GatewayFixture::connect()
{
  asio::ip::tcp::socket socket(io);
  socket.connect({asio::ip::make_address(options.address), static_cast<std::uint16_t>(std::stoi(port))});
  return socket;
}

Answer GatewayFixture::receive(asio::ip::tcp::socket& socket, beast::flat_buffer&& buffer)
{
  http::response<http::string_body> response;
  http::read(socket, buffer, response);
  return {response.result_int(), response.body(), response};
}

Answer GatewayFixture::raw(const std::string& text)
{
  auto socket = connect();
  asio::write(socket, asio::buffer(text));
  return receive(socket);
}

std::string GatewayFixture::request(const std::string& line, Fields fields, const std::string& body, const std::string& bearer) const
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

} // namespace GatewayTest
