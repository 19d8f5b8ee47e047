#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include <vu/role.hpp>

namespace packages
{

/// What the behaviors of a package may call, whoever starts them: what an
/// operator may, and all of ZBMemory, every behavior may; anything more has to
/// stand in the package's manifest.
class Rights
{
public:
  Rights() = default;
  /// As `<may call="…"/>` writes them: "Service.method", "Service.*" or "*".
  /// Throws std::invalid_argument for anything else.
  explicit Rights(const std::vector<std::string>& may);

  /// `least` is the first role that may call the method.
  bool allow(const std::string& service, const std::string& method, vu::Role least) const;
  /// Why not, in words that say what the manifest lacks; none where it may.
  std::optional<std::string> refusal(const std::string& service, const std::string& method, vu::Role least) const;

  /// What has been asked for.
  std::vector<std::string> asked() const { return {_asked.begin(), _asked.end()}; }

private:
  std::set<std::string> _asked;
};

} // namespace packages
