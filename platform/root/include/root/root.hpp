#pragma once

#include <filesystem>
#include <string>

namespace Tarvik
{

/// The root that is meant: `given` where not empty, else $TARVIK_ROOT, else
/// $XDG_DATA_HOME/tarvik, else ~/.local/share/tarvik. Absolute; it need not exist.
std::filesystem::path resolveRoot(const std::string& given = {});

/// Names in a root.
struct RootLayout
{
  explicit RootLayout(const std::filesystem::path& root)
      : packages(root / "packages"), preferences(root / "preferences"), run(root / "run"), endpoint(run / "endpoint"), token(run / "token"),
        certificate(run / "certificate"), runTokens(run / "behaviors"), tokens(root / "tokens")
  {
  }

  std::filesystem::path packages;
  std::filesystem::path preferences;
  std::filesystem::path run;      ///< the running host's, mode 0700
  std::filesystem::path endpoint; ///< its URL in one line
  std::filesystem::path token;    ///< an admin's token in one line, mode 0600
  /// The one that it serves TLS with, where it does; a PEM text.
  std::filesystem::path certificate;
  std::filesystem::path runTokens; ///< of behaviors that play, mode 0700; each in a file of mode 0600
  std::filesystem::path tokens;    ///< who has a token, and its digest; mode 0600
};

} // namespace Tarvik
