#pragma once

#include <memory>
#include <string>

#include <zb/zbmodulecore.hpp>

namespace ZB
{

/// Base of a module that a broker creates. Its constructor registers the name,
/// so that events may be subscribed to; the service appears in the directory
/// when the whole module has been constructed.
class ZBModule : public ZBModuleCore
{
public:
  ~ZBModule() override;

protected:
  /// Throws a ZBError when the name is taken.
  ZBModule(std::shared_ptr<ZBBroker> broker, const std::string& name);
};

} // namespace ZB
