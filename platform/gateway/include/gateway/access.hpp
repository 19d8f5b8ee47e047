#pragma once

#include <array>
#include <chrono>
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
  using Clock = std::chrono::system_clock;

  /// Gives the token's number, never used again. From `end` on it lets nobody
  /// in. Throws std::invalid_argument for an empty token.
  std::uint64_t add(std::string_view token, Identity identity, std::optional<Clock::time_point> end = {});
  std::uint64_t add(const TokenDigest& digest, Identity identity, std::optional<Clock::time_point> end = {});

  /// One that lets in no longer than another does, whose number is `parent`;
  /// none when that one does not any more.
  std::optional<std::uint64_t> addUnder(std::uint64_t parent, const TokenDigest& digest, Identity identity);

  /// Nobody is identified by the token, or by one under it, any more; then
  /// `removed` is emitted for each, on this thread. An unknown number is ignored.
  void remove(std::uint64_t number, const std::string& reason = "the token was removed");

  /// Emits `removed` for the tokens whose end has come since the last time.
  void expire(Clock::time_point now = Clock::now());

  /// The number of a token that lets nobody in any more, and why.
  vu::Signal<std::uint64_t, std::string> removed;

  /// Takes the same time whichever token is presented.
  std::optional<Identity> identify(std::string_view token) const;
  /// Of a token that lets in.
  std::optional<Identity> find(std::uint64_t number) const;
  /// When identify() has met the token last.
  std::optional<Clock::time_point> lastUse(std::uint64_t number) const;

private:
  struct Entry
  {
    TokenDigest digest;
    Identity identity;
    std::optional<Clock::time_point> end;
    std::uint64_t parent = 0;
    bool over = false; ///< expire() has told
    mutable std::optional<Clock::time_point> lastUse = {};

    bool isGood(Clock::time_point now = Clock::now()) const { return !end || now < *end; }
  };
  std::uint64_t insert(Entry entry);
  const Entry* entryOf(std::uint64_t number) const;

  mutable std::mutex _mutex; // guards the members below
  std::vector<Entry> _entries;
  std::uint64_t _lastNumber = 0;
};

} // namespace Tarvik
