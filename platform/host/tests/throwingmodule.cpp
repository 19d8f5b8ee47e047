#include <stdexcept>

#include <zb/modulelibrary.hpp>
#include <zb/zbmodule.hpp>

class ThrowingModule : public ZB::ZBModule
{
public:
  ThrowingModule(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
  {
    throw std::runtime_error("no arm is connected");
  }
};

ZB_MODULE_LIBRARY(ThrowingModule, "Throwing")
