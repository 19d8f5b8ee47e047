#include <gateway/access.hpp>

#include <algorithm>
#include <array>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

namespace Tarvik
{

std::string toHexadecimal(std::span<const unsigned char> bytes)
{
  std::string text;
  for (const auto byte : bytes)
  {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

std::string makeToken()
{
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
    throw std::runtime_error("no random numbers for a token");
  return toHexadecimal(bytes);
}

TokenDigest digestOf(std::string_view token)
{
  TokenDigest digest{};
  SHA256(reinterpret_cast<const unsigned char*>(token.data()), token.size(), digest.data());
  return digest;
}

std::uint64_t Access::add(std::string_view token, Identity identity, std::optional<Clock::time_point> end)
{
  if (token.empty())
    throw std::invalid_argument("an empty token for " + identity.name);
  return add(digestOf(token), std::move(identity), end);
}

std::uint64_t Access::add(const TokenDigest& digest, Identity identity, std::optional<Clock::time_point> end)
{
  const std::lock_guard lock(_mutex);
  return insert({digest, std::move(identity), end});
}

std::optional<std::uint64_t> Access::addUnder(std::uint64_t parent, const TokenDigest& digest, Identity identity)
{
  const std::lock_guard lock(_mutex);
  const auto* const above = entryOf(parent);
  if (!above || !above->isGood())
    return std::nullopt;
  return insert({digest, std::move(identity), above->end, parent});
}

std::uint64_t Access::insert(Entry entry)
{
  entry.identity.number = ++_lastNumber;
  _entries.push_back(std::move(entry));
  return _lastNumber;
}

void Access::remove(std::uint64_t number, const std::string& reason)
{
  std::vector<std::uint64_t> gone;
  {
    const std::lock_guard lock(_mutex);
    std::erase_if(_entries,
                  [number, &gone](const Entry& entry)
                  {
                    const bool goes = entry.identity.number == number || entry.parent == number;
                    if (goes)
                      gone.push_back(entry.identity.number);
                    return goes;
                  });
  }
  for (const auto each : gone)
    removed(each, reason);
}

void Access::expire(Clock::time_point now)
{
  std::vector<std::uint64_t> gone;
  {
    const std::lock_guard lock(_mutex);
    for (auto& entry : _entries)
    {
      // Entries stay: a clock that is set back makes them good again.
      if (!entry.isGood(now) && !entry.over)
        gone.push_back(entry.identity.number);
      entry.over = !entry.isGood(now);
    }
  }
  for (const auto each : gone)
    removed(each, "the token has expired");
}

std::optional<Identity> Access::identify(std::string_view token) const
{
  const auto digest = digestOf(token);
  const std::lock_guard lock(_mutex);
  const Entry* found = nullptr;
  for (const auto& entry : _entries)
    if (CRYPTO_memcmp(entry.digest.data(), digest.data(), digest.size()) == 0)
      found = &entry;
  const auto now = Clock::now();
  if (!found || !found->isGood(now))
    return std::nullopt;
  found->lastUse = now;
  return found->identity;
}

std::optional<Identity> Access::find(std::uint64_t number) const
{
  const std::lock_guard lock(_mutex);
  const auto* const entry = entryOf(number);
  return entry && entry->isGood() ? std::optional(entry->identity) : std::nullopt;
}

std::optional<Access::Clock::time_point> Access::lastUse(std::uint64_t number) const
{
  const std::lock_guard lock(_mutex);
  const auto* const entry = entryOf(number);
  return entry ? entry->lastUse : std::nullopt;
}

const Access::Entry* Access::entryOf(std::uint64_t number) const
{
  const auto found =
      std::find_if(_entries.begin(), _entries.end(), [number](const Entry& entry) { return entry.identity.number == number; });
  return found == _entries.end() ? nullptr : &*found;
}

} // namespace Tarvik
