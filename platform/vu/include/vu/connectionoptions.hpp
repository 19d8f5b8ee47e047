#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace vu
{

/// Which host a remote session connects to, and how.
struct ConnectionOptions
{
  std::string url;                          ///< "http://127.0.0.1:7110" or "https://…"
  std::string token;                        ///< sent as bearer token
  std::chrono::milliseconds timeout{10000}; ///< for connecting
  /// Certificate of an authority to trust for https besides the system's, a PEM file.
  std::string certificateAuthority;
  /// Without a sign of life of the host, which is pinged in between, until the connection counts as lost.
  std::chrono::milliseconds idle{60000};
  /// The only certificate that the host may have for https, a PEM file. Its
  /// names, its end and who has signed it do not matter then.
  std::string hostCertificate = {};
  /// Of calls that may wait to be sent; one more is refused as Overloaded.
  std::size_t outgoingBytes = 64 << 20;
};

} // namespace vu
