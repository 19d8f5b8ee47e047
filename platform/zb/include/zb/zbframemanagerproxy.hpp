#pragma once

#include <memory>
#include <string>

#include <zb/zbproxy.hpp>

namespace ZB
{

/// Typed proxy of "ZBFrameManager"; see docs/architecture.md.
class ZBFrameManagerProxy
{
public:
  explicit ZBFrameManagerProxy(std::shared_ptr<ZBBroker> broker, const std::string& name = "ZBFrameManager")
      : _proxy(std::make_shared<ZBProxy>(std::move(broker), name))
  {
  }

  std::string createBehavior(const std::string& packageDirectory, const std::string& projectFile, const std::string& name) const
  {
    return _proxy->call<std::string>("createBehavior", packageDirectory, projectFile, name);
  }
  void playBehavior(const std::string& id) const { _proxy->call("playBehavior", id); }
  void deleteBehavior(const std::string& id) const { _proxy->call("deleteBehavior", id); }
  std::shared_ptr<ZBProxy> getGenericProxy() const { return _proxy; }

private:
  std::shared_ptr<ZBProxy> _proxy;
};

} // namespace ZB
