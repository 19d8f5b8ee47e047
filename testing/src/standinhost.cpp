#include <testing/standinhost.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

namespace TestSupport
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using asio::ip::tcp;

struct StandInHost::Implementation
{
  void run()
  {
    while (!over)
      try
      {
        websocket::stream<tcp::socket> stream(acceptor.accept());
        {
          const std::lock_guard lock(mutex);
          connection = stream.next_layer().native_handle();
        }
        if (!over)
          serve(stream);
      }
      catch (const std::exception&) // the client has gone, or the test is over
      {
        const std::lock_guard lock(mutex);
        connection = -1;
      }
  }

  void serve(websocket::stream<tcp::socket>& stream)
  {
    stream.control_callback([this](websocket::frame_type type, auto) { type == websocket::frame_type::ping ? pinged.set() : void(); });
    stream.accept();
    for (;;)
    {
      std::vector<vu::Value> calls;
      std::vector<std::string> methods;
      while (calls.size() < together)
      {
        beast::flat_buffer buffer;
        stream.read(buffer);
        silent.wait(true); // until the test is over
        calls.push_back(vu::Value::parse(beast::buffers_to_string(buffer.data())));
        methods.push_back(calls.back().at("method"));
      }
      {
        const std::lock_guard lock(mutex);
        std::sort(methods.begin(), methods.end());
        rounds.push_back(methods);
      }
      for (const auto& call : calls)
      {
        auto value = result(call.at("method"), call.at("params"));
        outgoing.push_back({{"id", call.at("id")}, {"result", std::move(value)}});
        for (auto& message : std::exchange(outgoing, {}))
        {
          message["jsonrpc"] = "2.0";
          stream.write(asio::buffer(message.dump()));
        }
      }
    }
  }

  Result result;
  std::size_t together = 1;
  asio::io_context io;
  tcp::acceptor acceptor{io, {asio::ip::address_v4::loopback(), 0}};
  Event pinged{2};
  std::atomic<bool> silent = false;
  std::atomic<bool> over = false;
  std::vector<vu::Value> outgoing; ///< of its thread
  mutable std::mutex mutex;        // guards the members below
  int connection = -1;
  std::vector<std::vector<std::string>> rounds;
  std::thread thread;
};

StandInHost::StandInHost(Result result, std::size_t together) : _implementation(std::make_unique<Implementation>())
{
  _implementation->result = std::move(result);
  _implementation->together = together;
  _implementation->thread = std::thread([this] { _implementation->run(); });
}

StandInHost::~StandInHost()
{
  _implementation->over = true;
  _implementation->silent = false;
  _implementation->silent.notify_all();
  {
    const std::lock_guard lock(_implementation->mutex);
    ::shutdown(_implementation->acceptor.native_handle(), SHUT_RDWR);
    ::shutdown(_implementation->connection, SHUT_RDWR);
  }
  _implementation->thread.join();
}

std::string StandInHost::url() const { return "http://127.0.0.1:" + std::to_string(_implementation->acceptor.local_endpoint().port()); }

std::vector<std::vector<std::string>> StandInHost::rounds() const
{
  const std::lock_guard lock(_implementation->mutex);
  return _implementation->rounds;
}

void StandInHost::emit(const vu::Value& arguments)
{
  _implementation->outgoing.push_back({{"method", "signal"}, {"params", {{"link", 1}, {"arguments", arguments}}}});
}

Event& StandInHost::pinged() { return _implementation->pinged; }

void StandInHost::fallSilent() { _implementation->silent = true; }

} // namespace TestSupport
