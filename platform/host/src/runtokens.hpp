#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gateway/access.hpp>

namespace Tarvik
{

/// Tokens for the programs of single runs of behaviors. Each stands in a file
/// of its own that only this user reads, lasts as long as its run, and outlives
/// no host. Thread-safe.
class RunTokens
{
public:
  /// Empties `directory`: what a host that was killed has left there goes.
  RunTokens(std::filesystem::path directory, std::shared_ptr<Access> access);
  /// Ends all there are.
  ~RunTokens();
  RunTokens(const RunTokens&) = delete;
  RunTokens& operator=(const RunTokens&) = delete;

  struct Run
  {
    std::uint64_t number; ///< never used again
    std::filesystem::path file;
  };
  /// Lets in `caller`, who may call what `may` asks for, see packages::Rights,
  /// and for all else is an operator. Throws std::invalid_argument, or
  /// filesystem_error where the file cannot be written.
  Run begin(const std::string& caller, const std::vector<std::string>& may);
  /// Ends the connections that the token has opened, too. An unknown number is
  /// ignored.
  void end(std::uint64_t number);

private:
  void clear() const;
  std::filesystem::path fileOf(std::uint64_t number) const { return _directory / std::to_string(number); }

  const std::filesystem::path _directory;
  const std::shared_ptr<Access> _access;
  std::mutex _mutex; // guards _numbers
  std::set<std::uint64_t> _numbers;
};

} // namespace Tarvik
