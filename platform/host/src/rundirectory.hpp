#pragma once

#include <filesystem>
#include <string>

#include <root/root.hpp>

namespace Tarvik
{

/// The claim of one host on a root: holds its lock, and what clients need to
/// find the host. Gives all back when it dies.
///
/// Beside each of its files a spare one is kept, whose room on the disk takes
/// the line when there is no other. Where not even that is possible, the host
/// goes on without the file, and the log tells.
class RunDirectory
{
public:
  /// Creates the root where it is missing and takes its lock. Throws
  /// std::runtime_error when another host has it, or when others than the
  /// user and the system's administrator may change what is in it.
  explicit RunDirectory(const std::filesystem::path& root);
  ~RunDirectory();
  RunDirectory(const RunDirectory&) = delete;
  RunDirectory& operator=(const RunDirectory&) = delete;

  const RootLayout& layout() const { return _layout; }

  /// Writes the token of the host's own user; false where the disk is full.
  bool writeToken(const std::string& token) { return write(_layout.token, token); }

  /// Tells clients by which certificate they know the host, in PEM.
  void writeCertificate(const std::string& pem) { write(_layout.certificate, pem); }

  /// Tells clients where the host is.
  void announce(const std::string& url);

private:
  /// Readable for the owner only, and whole at every moment. A disk that is
  /// full is an error in the log, and false.
  bool write(const std::filesystem::path& file, const std::string& line) const;
  /// What the file leaves behind is the next one's spare.
  void withdraw(const std::filesystem::path& file) const;

  const RootLayout _layout;
  int _lock = -1;
};

} // namespace Tarvik
