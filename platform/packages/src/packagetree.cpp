#include <packages/packagetree.hpp>

#include <deque>
#include <string>

#include <packages/packageerror.hpp>
#include <vu/text.hpp>

namespace packages
{

using vu::inQuotes;

namespace fs = std::filesystem;

namespace
{

constexpr int longestLinkChain = 40;
constexpr auto executable = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
constexpr auto readable = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read;

[[noreturn]] void refuseSpecial(const fs::path& entry)
{
  throw PackageError(inQuotes(entry.string()) + " is neither a file, a folder nor a link; remove it from the package");
}

/// Goes the link's way step by step: one that passes through the outside may
/// end inside today, and elsewhere once the package has moved.
void checkLink(const fs::path& directory, const fs::path& link)
{
  const auto fail = [&link](const std::string& message) { throw PackageError("the link " + inQuotes(link.string()) + " " + message); };
  std::deque<fs::path> steps(link.begin(), link.end());
  fs::path reached; // without links, relative to the package
  int links = 0;
  while (!steps.empty())
  {
    const auto step = std::move(steps.front());
    steps.pop_front();
    if (step.empty() || step == ".")
      continue;
    if (step == "..")
    {
      if (reached.empty())
        fail("leads out of the package");
      reached = reached.parent_path();
      continue;
    }
    const auto next = reached / step;
    const auto type = fs::symlink_status(directory / next).type();
    if (type == fs::file_type::not_found)
      fail("leads nowhere: " + inQuotes(next.string()) + " is missing");
    if (type != fs::file_type::symlink)
    {
      reached = next;
      continue;
    }
    if (++links > longestLinkChain)
      fail("leads in a circle");
    const auto target = fs::read_symlink(directory / next);
    if (target.is_absolute())
      fail("leads out of the package, to " + inQuotes(target.string()));
    steps.insert(steps.begin(), target.begin(), target.end());
  }
}

} // namespace

void copyTree(const fs::path& source, const fs::path& target)
{
  for (const auto& entry : fs::recursive_directory_iterator(source))
  {
    const auto relative = entry.path().lexically_relative(source);
    const auto copy = target / relative;
    const auto status = entry.symlink_status();
    if (status.type() == fs::file_type::directory)
      fs::create_directory(copy);
    else if (status.type() == fs::file_type::symlink)
      fs::copy_symlink(entry.path(), copy);
    else if (status.type() == fs::file_type::regular)
    {
      fs::copy_file(entry.path(), copy);
      fs::permissions(copy, readable | (status.permissions() & executable));
    }
    else
      refuseSpecial(relative);
  }
}

void checkTree(const fs::path& directory)
{
  if (fs::symlink_status(directory / installerFile).type() != fs::file_type::not_found)
    throw PackageError(std::string("a package must not bring along the file ") + installerFile +
                       ", which the package manager writes itself");
  for (const auto& entry : fs::recursive_directory_iterator(directory))
  {
    const auto relative = entry.path().lexically_relative(directory);
    const auto type = entry.symlink_status().type();
    if (type == fs::file_type::symlink)
      checkLink(directory, relative);
    else if (type != fs::file_type::directory && type != fs::file_type::regular)
      refuseSpecial(relative);
  }
}

} // namespace packages
