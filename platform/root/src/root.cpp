#include <root/root.hpp>

#include <cstdlib>

#include <vu/os.hpp>

namespace Tarvik
{

std::filesystem::path resolveRoot(const std::string& given)
{
  const auto environment = [](const char* name)
  {
    const char* const value = std::getenv(name);
    return std::filesystem::path(value ? value : "");
  };
  std::filesystem::path root = given;
  if (root.empty())
    root = environment("TARVIK_ROOT");
  if (root.empty())
  {
    const auto data = environment("XDG_DATA_HOME");
    root = (data.is_absolute() ? data : std::filesystem::path(vu::os::home()) / ".local" / "share") / "tarvik";
  }
  return std::filesystem::absolute(root).lexically_normal();
}

} // namespace Tarvik
