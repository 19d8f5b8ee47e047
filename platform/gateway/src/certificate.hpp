#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/ssl/context.hpp>

namespace Tarvik
{

/// The certificate and the key that a gateway serves TLS with, taken up anew
/// when their files change. Thread-safe.
class Certificate
{
public:
  using Context = std::shared_ptr<boost::asio::ssl::context>;

  /// Told, on the thread of the constructor or of look(), which certificate is
  /// served from now on, as PEM text.
  using Taken = std::function<void(const std::string& pem)>;

  /// Throws std::runtime_error that names the file and what is wrong with it.
  Certificate(std::string certificateFile, std::string keyFile, Taken taken);

  /// For connections that begin now.
  Context context() const;

  /// The first of the names and addresses that the certificate is good for;
  /// none when it is good for none of them.
  std::optional<std::string> findName(const std::vector<std::string>& candidates) const;

  /// Takes up what has changed since the last time, once the files have stayed
  /// the same from one look to the next; what cannot be used is an error in the
  /// log, and the former certificate stays. Warns, once a day, of one that is
  /// about to expire. Reads files.
  void look();

private:
  using Clock = std::chrono::steady_clock;
  /// Of both files: device, node, time of change, size.
  using State = std::array<std::uint64_t, 10>;

  Context load() const;
  State state() const;
  void warn(const Context& context);

  const std::string _certificateFile;
  const std::string _keyFile;
  const Taken _taken;
  mutable std::mutex _mutex; // guards _context
  Context _context;
  std::mutex _looking; // guards the members below
  State _seen;
  State _tried;
  Clock::time_point _warned;
};

} // namespace Tarvik
