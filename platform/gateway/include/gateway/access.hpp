#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <vu/role.hpp>
#include <vu/signal.hpp>
#include <zb/callgate.hpp>

namespace Tarvik
{

using vu::Role;

/// Who stands behind a token.
struct Identity
{
  std::string name;
  Role role = Role::Observer;
  std::uint64_t number = 0; ///< of the token, given by Access
  ZB::Rights rights = {};   ///< what it may call, where that is not what its role may
};

/// SHA-256 of a token, which is all that is kept of it: a token is random, so
/// that its digest needs no salt.
using TokenDigest = std::array<unsigned char, 32>;

std::string toHexadecimal(std::span<const unsigned char> bytes);

/// 256 random bits as hexadecimal digits. Throws std::runtime_error.
std::string makeToken();
TokenDigest digestOf(std::string_view token);

/// The tokens that a gateway knows. Thread-safe.
class Access
{
public:
  /// Gives the token's number, never used again. Throws std::invalid_argument
  /// for an empty token.
  std::uint64_t add(std::string_view token, Identity identity);
  std::uint64_t add(const TokenDigest& digest, Identity identity);

  /// Nobody is identified by the token any more; then `removed` is emitted,
  /// on this thread. An unknown number is ignored.
  void remove(std::uint64_t number);
  vu::Signal<std::uint64_t> removed;

  /// Takes the same time whichever token is presented.
  std::optional<Identity> identify(std::string_view token) const;

private:
  struct Entry
  {
    TokenDigest digest;
    Identity identity;
  };
  mutable std::mutex _mutex; // guards the members below
  std::vector<Entry> _entries;
  std::uint64_t _lastNumber = 0;
};

} // namespace Tarvik
