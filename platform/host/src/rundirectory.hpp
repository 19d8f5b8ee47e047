#pragma once

#include <filesystem>
#include <string>

#include <root/root.hpp>

namespace Tarvik
{

/// The claim of one host on a root: holds its lock, and what clients need to
/// find the host. Gives all back when it dies.
class RunDirectory
{
public:
  /// Creates the root where it is missing and takes its lock. Throws
  /// std::runtime_error when another host has it.
  explicit RunDirectory(const std::filesystem::path& root);
  ~RunDirectory();
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;

  const RootLayout& layout() const { return _layout; }

  /// Writes a fresh random token to its file and gives it.
  std::string makeToken();

  /// Tells clients where the host is.
  void announce(const std::string& url);

private:
  /// Readable for the owner only, and whole at every moment.
  void write(const std::filesystem::path& file, const std::string& line) const;

  const RootLayout _layout;
  int _lock = -1;
};

} // namespace Tarvik
