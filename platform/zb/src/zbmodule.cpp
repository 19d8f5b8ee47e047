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
  // Gives up the reservation of a module that was never published. One that
  // the broker removed has ended, and its name may be another's by now.
  if (serviceObject()->enter() && getParentBroker()->session()->isReserved(getName()))
    getParentBroker()->session()->withdraw(getName());
}

} // namespace ZB
