#include <gateway/access.hpp>

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

std::uint64_t Access::add(std::string_view token, Identity identity)
{
  if (token.empty())
    throw std::invalid_argument("an empty token for " + identity.name);
  return add(digestOf(token), std::move(identity));
}

std::uint64_t Access::add(const TokenDigest& digest, Identity identity)
{
  const std::lock_guard lock(_mutex);
  identity.number = ++_lastNumber;
  _entries.push_back({digest, std::move(identity)});
  return _lastNumber;
}

void Access::remove(std::uint64_t number)
{
  {
    const std::lock_guard lock(_mutex);
    if (std::erase_if(_entries, [number](const Entry& entry) { return entry.identity.number == number; }) == 0)
      return;
  }
  removed(number);
}

std::optional<Identity> Access::identify(std::string_view token) const
{
  const auto digest = digestOf(token);
  const std::lock_guard lock(_mutex);
  const Entry* found = nullptr;
  for (const auto& entry : _entries)
    if (CRYPTO_memcmp(entry.digest.data(), digest.data(), digest.size()) == 0)
      found = &entry;
  return found ? std::optional(found->identity) : std::nullopt;
}

} // namespace Tarvik
