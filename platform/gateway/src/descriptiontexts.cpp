#include "descriptiontexts.hpp"

#include "jsonrpc.hpp"

namespace Tarvik
{

const std::string& DescriptionTexts::of(const vu::LocalSession& session, const std::string& service)
{
  const auto object = session.require(service);
  if (const auto found = _entries.find(service); found != _entries.end() && found->second.object.lock() == object)
    return found->second.text;
  std::erase_if(_entries, [](const auto& entry) { return entry.second.object.expired(); });
  return _entries.insert_or_assign(service, Entry{object, JsonRpc::dump(object->description())}).first->second.text;
}

} // namespace Tarvik
