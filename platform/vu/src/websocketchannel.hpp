#pragma once

#include <functional>
#include <memory>
#include <string>

#include <vu/connectionoptions.hpp>

namespace vu
{

/// One WebSocket to a host, as its client: texts go out, texts come in. It has
/// a thread of its own, on which both handlers run. Thread-safe.
class WebSocketChannel
{
public:
  struct Handlers
  {
    std::function<void(const std::string& text)> message;
    /// Once, when the connection has ended for whatever reason but close();
    /// nothing comes after it.
    std::function<void(const std::string& reason)> closed;
  };

  /// Connects; throws a ServiceError of kind ConnectionLost that names the
  /// address when there is no host, NotAllowed when it refuses the token,
  /// InvalidArguments when the URL is none.
  static std::unique_ptr<WebSocketChannel> connect(const ConnectionOptions& options, Handlers handlers);

  WebSocketChannel() = default;
  virtual ~WebSocketChannel() = default;
  WebSocketChannel(const WebSocketChannel&) = delete;
  WebSocketChannel& operator=(const WebSocketChannel&) = delete;

  /// Sent in the order of the calls; dropped when the connection has ended.
  /// False, and it is not sent, when too much waits to be sent already.
  virtual bool send(std::string text) = 0;

  /// Says goodbye, as long as a second allows, and joins the thread: no
  /// handler runs afterwards. Not to be called by a handler.
  virtual void close() = 0;
};

/// Parts of "http://host:port".
struct HostAddress
{
  bool secure = false;
  std::string host; ///< without the brackets of an IPv6 address
  std::string port;

  /// Throws a ServiceError of kind InvalidArguments that names it.
  static HostAddress parse(const std::string& url);
  /// "host:port", as the Host header has it.
  std::string authority() const;
};

} // namespace vu
