#include <chrono>

#include <boost/algorithm/string/replace.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <gateway/gateway.hpp>
#include <vu/log.hpp>
#include <zb/zbmodule.hpp>

#include "input.hpp"

namespace asio = boost::asio;
using asio::ip::tcp;

namespace
{

class Echo final : public ZB::ZBModule
{
public:
  Echo(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
  {
    functionName("echo", name, "Gives back what it gets");
    addParam("value", "anything");
    bindMethod(this, &Echo::echo);
    advertiseSignal("heard", heard);
  }

  vu::Value echo(const vu::Value& value)
  {
    heard(value);
    return value;
  }

  vu::Signal<vu::Value> heard;
};

/// A gateway whose only token is "token".
struct Host : ScratchFolder
{
  Host()
  {
    vu::log::setLevel(vu::log::Level::Silent);
    broker = ZB::ZBBroker::create();
    broker->createModule<Echo>("Echo");
    Tarvik::Gateway::Options options;
    options.port = 0;
    options.access->add("token", {"fuzz", Tarvik::Role::Admin});
    options.uploadDirectory = path();
    options.upload = [](ZB::ZBBroker&, const std::filesystem::path& file, const std::string&)
    { return vu::Value(std::filesystem::file_size(file)); };
    gateway.emplace(std::move(options));
    const auto url = gateway->listen();
    port = url.substr(url.rfind(':') + 1);
    gateway->start(broker);
  }
  ~Host()
  {
    gateway->stop();
    broker->shutdown();
  }

  std::shared_ptr<ZB::ZBBroker> broker;
  std::optional<Tarvik::Gateway> gateway;
  std::string port;
};

/// From one address after the other, since those that have been used are
/// blocked for a while. libFuzzer's timer interrupts now and then.
tcp::socket connect(asio::io_context& io, const std::string& port)
{
  static unsigned last = 0;
  for (;;)
  {
    tcp::socket socket(io, tcp::v4());
    socket.bind({asio::ip::address_v4(0x7F000001 + ++last % 200), 0});
    boost::system::error_code error;
    socket.connect({asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(std::stoi(port))}, error);
    if (!error)
      return socket;
    if (error != asio::error::interrupted)
      throw boost::system::system_error(error, "connect");
  }
}

} // namespace

/// One connection: the bytes, "@PORT" being the port, and then nothing more.
/// Every answer is HTTP, and the connection ends soon.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  static const Host host;
  auto request = asText(data, size);
  boost::replace_all(request, "@PORT", host.port);

  const auto begin = std::chrono::steady_clock::now();
  asio::io_context io;
  auto socket = connect(io, host.port);
  boost::system::error_code error;
  std::string answer;
  asio::write(socket, asio::buffer(request), error);
  if (!error)
    socket.shutdown(tcp::socket::shutdown_send, error);
  asio::read(socket, asio::dynamic_buffer(answer), error);
  require(std::chrono::steady_clock::now() - begin < std::chrono::seconds(8)); // the client has nothing more to say
  require(answer.empty() || answer.starts_with("HTTP/1.1 "));
  return 0;
}
