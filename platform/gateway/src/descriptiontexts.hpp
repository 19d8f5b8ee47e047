#pragma once

#include <map>
#include <memory>
#include <string>

#include <vu/session.hpp>

namespace Tarvik
{

/// What services say about themselves, as JSON that is made once for each: a
/// service's does not change while it is there. Not thread-safe.
class DescriptionTexts
{
public:
  /// Throws unknownService() when there is no such service.
  const std::string& of(const vu::LocalSession& session, const std::string& service);

private:
  struct Entry
  {
    std::weak_ptr<vu::LocalObject> object; ///< which another of that name may replace
    std::string text;
  };
  std::map<std::string, Entry> _entries;
};

} // namespace Tarvik
