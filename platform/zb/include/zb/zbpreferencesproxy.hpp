#pragma once

#include <memory>
#include <string>

#include <zb/zbproxy.hpp>
#include <zb/zbvalue.hpp>

namespace ZB
{

/// Typed proxy of "ZBPreferences"; see docs/architecture.md.
class ZBPreferencesProxy
{
public:
  explicit ZBPreferencesProxy(std::shared_ptr<ZBBroker> broker, const std::string& name = "ZBPreferences") : _proxy(std::move(broker), name)
  {
  }

  ZBValue readPrefFile(const std::string& fileName, const bool& flag) const { return _proxy.call<ZBValue>("readPrefFile", fileName, flag); }
  void writePrefFile(const std::string& fileName, const ZBValue& settings, const bool& flag) const
  {
    _proxy.call("writePrefFile", fileName, settings, flag);
  }
  void removePrefFile(const std::string& fileName) const { _proxy.call("removePrefFile", fileName); }

private:
  ZBProxy _proxy;
};

} // namespace ZB
