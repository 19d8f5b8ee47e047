#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gateway/access.hpp>

namespace Tarvik
{

/// The sessions of pages (docs/security.md tells what each half can do). A
/// browser sends a cookie along to whatever asks it to, pages of other ports
/// among them, and keeps it for all tabs; so it is not the token, and lets in
/// as an operator at most. The secret, which carries the whole role, is in the
/// hands of one tab, and a token like any other to Access.
///
/// In memory only. Thread-safe.
class Sessions
{
public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::hours life{12};
  static constexpr std::chrono::seconds codeLife{60};
  /// Beyond these the oldest go; none of another token's, as long as there are
  /// less than `most`.
  static constexpr std::size_t mostPerToken = 32;
  static constexpr std::size_t most = 1024;

  struct Session
  {
    std::string cookie;
    std::string secret;
    Identity identity; ///< of the secret
  };

  explicit Sessions(std::shared_ptr<Access> access, std::function<Clock::time_point()> now = Clock::now);

  /// Begins a session, which ends with its token, after `life` or for a newer
  /// one. None for a token or a code that is not good, or may not.
  std::optional<Session> beginWithToken(std::string_view token);
  std::optional<Session> beginWithCode(std::string_view code);

  /// One that begins a session of the holder's token, once. Throws a
  /// vu::ServiceError of kind NotAllowed for a session, which would prolong
  /// itself, and for whoever has rights of its own: a cookie has a role's.
  std::string makeCode(const Identity& holder);

  /// Who stands behind a cookie; takes the same time whichever is presented.
  std::optional<Identity> identify(std::string_view cookie) const;

  /// Ends the sessions whose time is over.
  void expire();

private:
  struct Entry
  {
    TokenDigest digest;
    std::uint64_t token;  ///< that it is of
    std::uint64_t secret; ///< in Access; 0 for a code
    Clock::time_point end;
  };
  using Entries = std::vector<Entry>; // oldest first

  std::optional<Session> begin(const Identity& holder);
  bool mayBegin(const Identity& holder) const;
  /// Takes out what would be one too many with one more of this token, and
  /// gives its secret's number.
  static std::optional<std::uint64_t> makeRoom(Entries& entries, std::uint64_t token);

  const std::shared_ptr<Access> _access;
  const std::function<Clock::time_point()> _now;
  mutable std::mutex _mutex; // guards the members below
  Entries _sessions;
  Entries _codes;
};

} // namespace Tarvik
