#include "tokens.hpp"

#include <algorithm>

#include <boost/algorithm/string/predicate.hpp>

#include <storage/durablefile.hpp>
#include <vu/log.hpp>
#include <vu/session.hpp>
#include <vu/text.hpp>
#include <vu/threadpool.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace Tarvik
{

namespace fs = std::filesystem;
using ZB::ZBError;

namespace
{

constexpr std::chrono::seconds retryInterval(1);
/// A disk of a robot is not written for every request.
constexpr std::chrono::hours usesInterval(1);
/// What the answer to renew() has to leave by the old token's connection.
constexpr std::chrono::seconds renewalGrace(1);
constexpr int longestSeconds = 10 * 365 * 24 * 3600;

std::string roleNames(const std::string& quote)
{
  std::string text;
  for (const auto role : vu::roles)
    text += (role == vu::roles.front() ? "" : role == vu::roles.back() ? " or " : ", ") + quote + std::string(roleName(role)) + quote;
  return text;
}

bool sameUses(const std::vector<TokenRecord>& some, const std::vector<TokenRecord>& others)
{
  return std::equal(some.begin(), some.end(), others.begin(), others.end(),
                    [](const TokenRecord& one, const TokenRecord& other) { return one.lastUse == other.lastUse; });
}

bool isOver(const TokenRecord& record) { return record.end && *record.end <= Access::Clock::now(); }

} // namespace

Tokens::Tokens(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, const RootLayout& root, std::shared_ptr<Access> access,
               WriteLocal writeLocal)
    : ZBModule(std::move(broker), name), _file(root.tokens), _access(std::move(access)), _writeLocal(std::move(writeLocal))
{
  try
  {
    storage::removeTemporaryFiles(_file.parent_path());
    _records = TokenFile::read(_file);
  }
  catch (const std::exception& error)
  {
    throw ZBError(name, "Tokens",
                  "the tokens in " + _file.string() + " cannot be read: " + vu::validUtf8(error.what()) +
                      "; mend the file, or remove it to start without tokens");
  }
  for (auto& record : _records)
    record.number = _access->add(record.digest, {record.name, record.role}, record.end);
  _runs = std::make_unique<RunTokens>(root.runTokens, _access);
  _local = makeLocal().first; // where nobody can be told, behaviors run all the same
  bindMethods();
  writeUsesLater();
}

Tokens::~Tokens()
{
  _gate->closeAndDrain();
  const std::lock_guard lock(_mutex);
  try
  {
    if (auto records = current(); _unwritten || !sameUses(records, _records))
      write(std::move(records));
  }
  catch (const std::exception& error)
  {
    vu::log::error("host", "tokens", std::string("what has changed of the tokens is not written down: ") + error.what());
  }
}

void Tokens::bindMethods()
{
  setModuleDescription("Gives out the tokens that let clients in, and takes them back");

  functionName("add", getName(), "Make a token; it is told this once");
  addParam("name", "whose it is: 1 to 32 letters, digits, '.', '_' or '-', a letter or digit first");
  addParam("role", roleNames("\""));
  setReturn("token", "the token");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::add);

  functionName("addTemporary", getName(), "Make a token that lets in for some time; it is told this once");
  addParam("name", "whose it is, as for add");
  addParam("role", roleNames("\""));
  addParam("seconds", "how long it lets in, at most ten years");
  setReturn("token", "the token");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::addTemporary);

  functionName("list", getName(), "Tell which tokens there are, but for the one of the running host");
  setReturn("tokens", "[{name, role, created, expires, lastUsed}], in the order of creation; null for never");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::list);

  functionName("remove", getName(), "Take a token back and end the connections that it has opened");
  addParam("name", "whose it is");
  setReturn("outcome", "{durable, reason}: whether a power cut would not bring it back, and else why it might");
  setAccess(vu::Role::Admin);
  setUrgent();
  bindMethod(this, &Tokens::remove);

  functionName("renew", getName(), "Write a fresh token for the host's own user, and end the old one and its connections within seconds");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::renew);

  functionName("_beginRun", getName(), "Make a token for the programs of one run of a behavior. INTERNAL");
  addParam("caller", "on whose behalf they call services");
  addParam("may", "what they may call beyond what an operator may, as manifests write it");
  setReturn("run", "{number, file}: of the token, and of the file that holds it");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::beginRun);

  functionName("_endRun", getName(), "Take the token of a run back, with its file and the connections that it has opened. INTERNAL");
  addParam("number", "of the token; one that is not there is ignored");
  setAccess(vu::Role::Admin);
  bindMethod(this, &Tokens::endRun);
}

std::pair<std::uint64_t, bool> Tokens::makeLocal() const
{
  const auto token = makeToken();
  // Known before anybody can read it.
  const auto number = _access->add(token, {"local", Role::Admin});
  try
  {
    return {number, _writeLocal(token)};
  }
  catch (...)
  {
    _access->remove(number);
    throw;
  }
}

std::vector<TokenRecord> Tokens::current() const
{
  auto records = _records;
  for (auto& record : records)
    record.lastUse = std::max(record.lastUse, _access->lastUse(record.number)); // none is the least
  return records;
}

void Tokens::write(std::vector<TokenRecord> records)
{
  TokenFile::write(_file, records);
  _records = std::move(records);
  _unwritten = false;
}

void Tokens::later(std::chrono::milliseconds delay, std::function<void()> task) const
{
  getParentBroker()->pool()->postAfter(delay,
                                       [gate = _gate, task = std::move(task)]
                                       {
                                         if (const auto pass = gate->enter())
                                           task();
                                       });
}

void Tokens::writeLater()
{
  later(retryInterval,
        [this]
        {
          const std::lock_guard lock(_mutex);
          if (!_unwritten)
            return;
          try
          {
            write(current());
            vu::log::info("host", "tokens", "the tokens are written down again");
          }
          catch (const fs::filesystem_error&) // told when it began
          {
            writeLater();
          }
        });
}

void Tokens::writeUsesLater()
{
  later(usesInterval,
        [this]
        {
          writeUsesLater();
          const std::lock_guard lock(_mutex);
          auto records = current();
          if (sameUses(records, _records))
            return;
          try
          {
            write(std::move(records));
          }
          catch (const fs::filesystem_error& error)
          {
            vu::log::warning("host", "tokens", std::string("when tokens were used is not written down: ") + error.what());
          }
        });
}

std::string Tokens::add(const std::string& name, const std::string& role) { return make("add", name, role, std::nullopt); }

std::string Tokens::addTemporary(const std::string& name, const std::string& role, const int& seconds)
{
  if (seconds < 1 || seconds > longestSeconds)
    throw ZBError(getName(), "addTemporary", "a token lets in for 1 to " + std::to_string(longestSeconds) + " seconds");
  return make("addTemporary", name, role, Access::Clock::now() + std::chrono::seconds(seconds));
}

std::string Tokens::make(const std::string& method, const std::string& name, const std::string& role, std::optional<Time> end)
{
  if (!TokenFile::isName(name))
    throw ZBError(getName(), method, "a token's name is 1 to 32 letters, digits, '.', '_' or '-', a letter or digit first");
  // The history tells a module's stops by the module's name.
  const auto services = getParentBroker()->session()->services();
  if (TokenFile::isReserved(name) ||
      std::any_of(services.begin(), services.end(), [&name](const std::string& service) { return boost::iequals(name, service); }))
    throw ZBError(getName(), method, "the name " + vu::inQuotes(name) + " is reserved: take another one");
  const auto wanted = vu::roleFromName(role);
  if (!wanted)
    throw ZBError(getName(), method, "there is no role " + vu::inQuotes(role) + ": give " + roleNames(""));
  auto token = makeToken();
  std::unique_lock lock(_mutex);
  auto records = current();
  const auto former = std::find_if(records.begin(), records.end(), [&name](const TokenRecord& record) { return record.name == name; });
  if (former != records.end() && !isOver(*former))
    throw ZBError(getName(), method, "there is a token " + vu::inQuotes(name) + " already: remove it first, or take another name");
  const auto ended = former == records.end() ? 0 : former->number;
  if (former != records.end())
    records.erase(former);
  const auto digest = digestOf(token);
  records.push_back({name, *wanted, Access::Clock::now(), end, std::nullopt, digest, 0});
  try
  {
    write(std::move(records));
  }
  catch (const fs::filesystem_error& error)
  {
    throw ZBError(getName(), method, "the token was not made: " + vu::validUtf8(error.what()));
  }
  _records.back().number = _access->add(digest, {name, *wanted}, end);
  lock.unlock();
  if (ended != 0)
    _access->remove(ended);
  return token;
}

vu::Value Tokens::list()
{
  auto result = vu::Value::array();
  const std::lock_guard lock(_mutex);
  for (const auto& record : current())
    result.push_back({{"name", record.name},
                      {"role", roleName(record.role)},
                      {"created", TokenFile::timeValue(record.created)},
                      {"expires", TokenFile::timeValue(record.end)},
                      {"lastUsed", TokenFile::timeValue(record.lastUse)}});
  return result;
}

vu::Value Tokens::beginRun(const std::string& caller, const std::vector<std::string>& may)
{
  try
  {
    const auto run = _runs->begin(caller, may);
    return {{"number", run.number}, {"file", run.file.string()}};
  }
  catch (const std::exception& error)
  {
    throw ZBError(getName(), "_beginRun", vu::validUtf8(error.what()));
  }
}

vu::Value Tokens::remove(const std::string& name)
{
  std::uint64_t number = 0;
  std::string reason;
  {
    const std::lock_guard lock(_mutex);
    auto records = current();
    const auto found = std::find_if(records.begin(), records.end(), [&name](const TokenRecord& record) { return record.name == name; });
    if (found == records.end())
      throw ZBError(getName(), "remove", "there is no token of this name; list() tells which there are");
    number = found->number;
    records.erase(found);
    _records = records;
    try
    {
      write(std::move(records));
    }
    catch (const fs::filesystem_error& error)
    {
      reason = vu::validUtf8(error.what());
      vu::log::error("host", "tokens", "the removal of a token is not written down yet, and is tried again: " + reason);
      if (!std::exchange(_unwritten, true))
        writeLater();
    }
  }
  _access->remove(number);
  return {{"durable", reason.empty()}, {"reason", reason}};
}

void Tokens::renew()
{
  const std::lock_guard lock(_renewal);
  try
  {
    const auto [fresh, written] = makeLocal();
    if (!written)
    {
      _access->remove(fresh);
      throw std::runtime_error("the disk is full");
    }
    const auto old = std::exchange(_local, fresh);
    later(renewalGrace, [access = _access, old] { access->remove(old, "the token was renewed"); });
  }
  catch (const std::runtime_error& error)
  {
    throw ZBError(getName(), "renew", "the token was not renewed: " + vu::validUtf8(error.what()));
  }
}

} // namespace Tarvik
