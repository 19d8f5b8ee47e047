#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gateway/access.hpp>
#include <root/root.hpp>
#include <vu/gate.hpp>
#include <zb/zbmodule.hpp>

#include "runtokens.hpp"
#include "tokenfile.hpp"

namespace Tarvik
{

/// The service "Tokens": gives out tokens, each with a name and a role, and
/// takes them back. A file keeps who has one; the gateway's Access is kept like
/// it. Those of single runs are in no list: nobody gives them out.
class Tokens final : public ZB::ZBModule
{
public:
  /// Puts the token of the host's own user where that one finds it; false, or a
  /// std::runtime_error, when it cannot.
  using WriteLocal = std::function<bool(const std::string& token)>;

  /// Reads the file, where there is one; throws a ZBError that names it when it
  /// cannot be read whole. Makes a fresh token "local".
  Tokens(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, const RootLayout& root, std::shared_ptr<Access> access,
         WriteLocal writeLocal);
  /// Writes down when tokens were used.
  ~Tokens() override;

  /// Gives the token, which nobody can be told again.
  std::string add(const std::string& name, const std::string& role);
  std::string addTemporary(const std::string& name, const std::string& role, const int& seconds);
  /// [{name, role, created, expires, lastUsed}], in the order of creation.
  vu::Value list();
  /// Ends the connections that the token has opened. {durable, reason}: where
  /// the file cannot be written, the token is gone for this host, and the file
  /// is written as soon as that is possible.
  vu::Value remove(const std::string& name);
  /// Makes a fresh token "local" and ends the old one, a moment later, so that
  /// whoever has asked with it hears of it.
  void renew();

  /// A token for the programs of one run, see RunTokens: {number, file}.
  vu::Value beginRun(const std::string& caller, const std::vector<std::string>& may);
  void endRun(const std::uint64_t& number) { _runs->end(number); }

private:
  using Time = TokenRecord::Time;

  void bindMethods();
  std::string make(const std::string& method, const std::string& name, const std::string& role, std::optional<Time> end);
  /// A fresh token, and whether it could be written.
  std::pair<std::uint64_t, bool> makeLocal() const;
  /// With the uses that Access knows. The next ones need _mutex.
  std::vector<TokenRecord> current() const;
  void write(std::vector<TokenRecord> records);
  void writeLater();
  void writeUsesLater();
  /// After the delay, unless this has gone.
  void later(std::chrono::milliseconds delay, std::function<void()> task) const;

  const std::filesystem::path _file;
  const std::shared_ptr<Access> _access;
  const WriteLocal _writeLocal;
  std::unique_ptr<RunTokens> _runs;
  const std::shared_ptr<vu::Gate> _gate = std::make_shared<vu::Gate>();
  std::mutex _mutex; // guards the file and the members below
  std::vector<TokenRecord> _records;
  bool _unwritten = false;  ///< the file knows a token that is gone
  std::mutex _renewal;      // serialises renew(), and guards the member below
  std::uint64_t _local = 0; ///< in _access
};

} // namespace Tarvik
