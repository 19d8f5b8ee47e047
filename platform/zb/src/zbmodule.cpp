#include <zb/zbmodule.hpp>

#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>

namespace ZB
{

ZBModule::ZBModule(std::shared_ptr<ZBBroker> broker, const std::string& name) : ZBModuleCore(std::move(broker), name)
{
  try
  {
    getParentBroker()->session()->reserve(name);
  }
  catch (const vu::ServiceError& error)
  {
    throw ZBError(error);
  }
}

ZBModule::~ZBModule()
{
  // Published modules are withdrawn by their broker before; this gives up the
  // reservation of one whose constructor threw.
  if (getParentBroker()->session()->isReserved(getName()))
    getParentBroker()->session()->withdraw(getName());
}

} // namespace ZB
