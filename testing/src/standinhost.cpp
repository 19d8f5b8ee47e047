#include <testing/standinhost.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace TestSupport
{

namespace
{

// Those of the protocol (RFC 6455).
enum Opcode
{
  Text = 1,
  Close = 8,
  Ping = 9,
  Pong = 10
};

/// A connection that ends ends the reading.
std::string read(int connection, std::size_t count)
{
  std::string bytes(count, '\0');
  for (std::size_t have = 0; have < count;)
  {
    const auto got = recv(connection, bytes.data() + have, count - have, 0);
    if (got <= 0)
      throw std::runtime_error("the client has gone");
    have += static_cast<std::size_t>(got);
  }
  return bytes;
}

std::uint64_t number(const std::string& bytes)
{
  std::uint64_t value = 0;
  for (const char byte : bytes)
    value = value << 8 | static_cast<unsigned char>(byte);
  return value;
}

void write(int connection, const std::string& bytes) { send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

void writeFrame(int connection, Opcode opcode, const std::string& payload)
{
  const auto size = payload.size();
  std::string head{static_cast<char>(0x80 | opcode)};
  if (size < 126)
    head += static_cast<char>(size);
  else
    head += {126, static_cast<char>(size >> 8), static_cast<char>(size)};
  write(connection, head + payload);
}

std::pair<int, std::string> readFrame(int connection)
{
  const auto head = read(connection, 2);
  std::uint64_t size = head[1] & 0x7f;
  if (size >= 126)
    size = number(read(connection, size == 126 ? 2 : 8));
  const auto mask = read(connection, 4);
  auto payload = read(connection, size);
  for (std::size_t i = 0; i < payload.size(); ++i)
    payload[i] = static_cast<char>(payload[i] ^ mask[i % 4]);
  return {head[0] & 0x0f, payload};
}

void shakeHands(int connection)
{
  std::string request;
  while (!request.ends_with("\r\n\r\n"))
    request += read(connection, 1);
  const std::string field = "Sec-WebSocket-Key: ";
  const auto begin = request.find(field) + field.size();
  const auto key = request.substr(begin, request.find('\r', begin) - begin) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(key.data()), key.size(), digest);
  unsigned char accept[2 * SHA_DIGEST_LENGTH];
  const auto length = EVP_EncodeBlock(accept, digest, sizeof digest);
  write(connection, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
                        std::string(accept, accept + length) + "\r\n\r\n");
}

} // namespace

StandInHost::StandInHost(Result result, std::size_t together)
    : _result(std::move(result)), _together(together), _listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(_listening, any, size) != 0 || listen(_listening, 8) != 0 || getsockname(_listening, any, &size) != 0)
    throw std::runtime_error("no free port on loopback");
  _port = ntohs(address.sin_port);
  _thread = std::thread([this] { run(); });
}

StandInHost::~StandInHost()
{
  {
    const std::lock_guard lock(_mutex);
    _over = true;
    shutdown(_listening, SHUT_RDWR);
    shutdown(_connection, SHUT_RDWR);
  }
  _thread.join();
  close(_listening);
}

std::vector<std::vector<std::string>> StandInHost::rounds() const
{
  const std::lock_guard lock(_mutex);
  return _rounds;
}

void StandInHost::run()
{
  for (;;)
  {
    const int connection = accept4(_listening, nullptr, nullptr, SOCK_CLOEXEC);
    {
      const std::lock_guard lock(_mutex);
      if (connection < 0 || _over)
      {
        close(connection);
        return;
      }
      _connection = connection;
    }
    try
    {
      serve(connection);
    }
    catch (const std::exception&) // the client has gone
    {
    }
    const std::lock_guard lock(_mutex);
    _connection = -1;
    close(connection);
  }
}

void StandInHost::serve(int connection)
{
  shakeHands(connection);
  std::vector<std::string> calls;
  for (;;)
  {
    pollfd readable{connection, POLLIN, 0};
    const bool more = calls.empty() || poll(&readable, 1, std::chrono::milliseconds(patience).count()) > 0;
    const auto [opcode, payload] = more ? readFrame(connection) : std::pair<int, std::string>();
    if (_silent)
      continue;
    if (opcode == Ping)
    {
      writeFrame(connection, Pong, payload);
      _pinged.set();
    }
    else if (opcode == Close)
      return writeFrame(connection, Close, payload);
    else if (opcode == Text)
      calls.push_back(payload);
    if (calls.size() == _together || (!more && !calls.empty()))
      answer(connection, calls);
  }
}

void StandInHost::answer(int connection, std::vector<std::string>& calls)
{
  std::vector<std::string> methods;
  std::vector<std::string> answers;
  for (const auto& text : std::exchange(calls, {}))
  {
    const auto call = vu::Value::parse(text);
    methods.push_back(call.at("method"));
    answers.push_back(vu::Value{{"jsonrpc", "2.0"}, {"id", call.at("id")}, {"result", _result(methods.back(), call.at("params"))}}.dump());
  }
  std::sort(methods.begin(), methods.end());
  {
    const std::lock_guard lock(_mutex);
    _rounds.push_back(std::move(methods));
  }
  for (const auto& text : answers)
    writeFrame(connection, Text, text);
}

} // namespace TestSupport
