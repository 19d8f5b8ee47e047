#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gateway/access.hpp>
#include <root/root.hpp>
#include <zb/zbmodule.hpp>

#include "runtokens.hpp"

namespace Tarvik
{

/// The service "Tokens": gives out tokens, each with a name and a role, and
/// takes them back. A file keeps who has one, and of the tokens themselves no
/// more than their digests; the gateway's Access is kept like it. Those of
/// single runs are in no list: nobody gives them out or takes them back.
class Tokens final : public ZB::ZBModule
{
public:
  /// Reads the file, where there is one; throws a ZBError that names it when it
  /// cannot be read whole.
  Tokens(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name, const RootLayout& root, std::shared_ptr<Access> access);

  /// Gives the token, which nobody can be told again.
  std::string add(const std::string& name, const std::string& role);
  /// [{name, role, created}], in the order of creation.
  vu::Value list();
  /// Ends the connections that the token has opened.
  void remove(const std::string& name);

  /// A token for the programs of one run, see RunTokens: {number, file}.
  vu::Value beginRun(const std::string& caller, const std::vector<std::string>& may);
  void endRun(const std::uint64_t& number) { _runs->end(number); }

private:
  struct Record
  {
    std::string name;
    Role role;
    std::string created; ///< UTC, 2026-03-04T10:20:30Z
    TokenDigest digest;
    std::uint64_t number = 0; ///< in _access
  };

  void bindMethods();
  std::vector<Record> read() const;
  void write(const std::vector<Record>& records) const;

  const std::filesystem::path _file;
  const std::shared_ptr<Access> _access;
  std::mutex _mutex; // guards _records and the file
  std::vector<Record> _records;
  std::unique_ptr<RunTokens> _runs;
};

} // namespace Tarvik
