#include <gateway/sessions.hpp>

#include <algorithm>

#include <openssl/crypto.h>

#include <vu/error.hpp>
#include <vu/log.hpp>

namespace Tarvik
{

namespace
{

template <typename Entries> auto findDigest(Entries& entries, std::string_view text)
{
  const auto digest = digestOf(text);
  auto found = entries.end();
  for (auto entry = entries.begin(); entry != entries.end(); ++entry)
    if (CRYPTO_memcmp(entry->digest.data(), digest.data(), digest.size()) == 0)
      found = entry;
  return found;
}

} // namespace

Sessions::Sessions(std::shared_ptr<Access> access, std::function<Clock::time_point()> now)
    : _access(std::move(access)), _now(std::move(now))
{
}

std::optional<Sessions::Session> Sessions::beginWithToken(std::string_view token)
{
  const auto holder = _access->identify(token);
  if (!holder || !mayBegin(*holder))
    return std::nullopt;
  return begin(*holder);
}

std::optional<Sessions::Session> Sessions::beginWithCode(std::string_view code)
{
  std::optional<Entry> taken;
  {
    const std::lock_guard lock(_mutex);
    const auto found = findDigest(_codes, code);
    if (found == _codes.end())
      return std::nullopt;
    taken = *found;
    _codes.erase(found);
  }
  const auto holder = _access->find(taken->token);
  if (!holder || _now() >= taken->end)
    return std::nullopt;
  return begin(*holder);
}

std::optional<Sessions::Session> Sessions::begin(const Identity& holder)
{
  Session session{makeToken(), makeToken(), holder};
  std::optional<std::uint64_t> ended;
  {
    const std::lock_guard lock(_mutex);
    const auto number = _access->addUnder(holder.number, digestOf(session.secret), holder);
    if (!number)
      return std::nullopt; // removed meanwhile
    session.identity.number = *number;
    ended = makeRoom(_sessions, holder.number);
    _sessions.push_back({digestOf(session.cookie), holder.number, *number, _now() + life});
  }
  vu::log::info("gateway", "enter", "a page's session of " + holder.name + " begins");
  if (ended)
    _access->remove(*ended, "a newer session has taken its place");
  return session;
}

std::string Sessions::makeCode(const Identity& holder)
{
  if (!mayBegin(holder))
    throw vu::ServiceError("session", "code",
                           "neither a page's session nor a behavior's run begins a session: ask with a token of your own",
                           vu::ServiceError::Kind::NotAllowed);
  auto code = makeToken();
  const std::lock_guard lock(_mutex);
  makeRoom(_codes, holder.number);
  _codes.push_back({digestOf(code), holder.number, 0, _now() + codeLife});
  return code;
}

std::optional<Identity> Sessions::identify(std::string_view cookie) const
{
  const std::lock_guard lock(_mutex);
  const auto found = findDigest(_sessions, cookie);
  if (found == _sessions.end() || _now() >= found->end)
    return std::nullopt;
  auto identity = _access->find(found->secret);
  if (identity)
  {
    identity->role = std::min(identity->role, Role::Operator);
    identity->rights = {};
  }
  return identity;
}

void Sessions::expire()
{
  std::vector<std::uint64_t> ended;
  {
    const std::lock_guard lock(_mutex);
    const auto now = _now();
    for (const auto& session : _sessions)
      if (now >= session.end)
        ended.push_back(session.secret);
    std::erase_if(_sessions, [&](const Entry& session) { return now >= session.end || !_access->find(session.secret); });
    std::erase_if(_codes, [&](const Entry& code) { return now >= code.end; });
  }
  for (const auto each : ended)
    _access->remove(each, "the page's session is over: open it anew");
}

bool Sessions::mayBegin(const Identity& holder) const
{
  const std::lock_guard lock(_mutex);
  return !holder.rights &&
         std::none_of(_sessions.begin(), _sessions.end(), [&holder](const Entry& session) { return session.secret == holder.number; });
}

std::optional<std::uint64_t> Sessions::makeRoom(Entries& entries, std::uint64_t token)
{
  const auto isOfToken = [token](const Entry& entry) { return entry.token == token; };
  auto oldest = entries.end();
  if (static_cast<std::size_t>(std::count_if(entries.begin(), entries.end(), isOfToken)) >= mostPerToken)
    oldest = std::find_if(entries.begin(), entries.end(), isOfToken);
  else if (entries.size() >= most)
    oldest = entries.begin();
  if (oldest == entries.end())
    return std::nullopt;
  const auto secret = oldest->secret;
  entries.erase(oldest);
  return secret;
}

} // namespace Tarvik
