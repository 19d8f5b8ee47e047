#pragma once

#include <memory>
#include <string>
#include <vector>

#include <zb/zbproxy.hpp>
#include <zb/zbvalue.hpp>

namespace ZB
{

/// Typed proxy of "ZBMemory"; see docs/architecture.md for what the methods do.
class ZBMemoryProxy
{
public:
  explicit ZBMemoryProxy(std::shared_ptr<ZBBroker> broker, const std::string& name = "ZBMemory") : _proxy(std::move(broker), name) {}

  void declareEvent(const std::string& key) const { _proxy.call("declareEvent", key); }
  void raiseEvent(const std::string& key, const ZBValue& value) const { _proxy.call("raiseEvent", key, value); }
  void raiseMicroEvent(const std::string& key, const ZBValue& value) const { _proxy.call("raiseMicroEvent", key, value); }
  void insertData(const std::string& key, const ZBValue& value) const { _proxy.call("insertData", key, value); }
  ZBValue getData(const std::string& key) const { return _proxy.call<ZBValue>("getData", key); }
  void removeData(const std::string& key) const { _proxy.call("removeData", key); }
  std::vector<std::string> getDataListName() const { return _proxy.call<std::vector<std::string>>("getDataListName"); }
  std::vector<std::string> getEventList() const { return _proxy.call<std::vector<std::string>>("getEventList"); }
  void subscribeToEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method) const
  {
    _proxy.call("subscribeToEvent", key, module, message, method);
  }
  void subscribeToMicroEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method) const
  {
    _proxy.call("subscribeToMicroEvent", key, module, message, method);
  }
  void unsubscribeToEvent(const std::string& key, const std::string& module) const { _proxy.call("unsubscribeToEvent", key, module); }
  void unsubscribeToMicroEvent(const std::string& key, const std::string& module) const
  {
    _proxy.call("unsubscribeToMicroEvent", key, module);
  }

private:
  ZBProxy _proxy;
};

} // namespace ZB
