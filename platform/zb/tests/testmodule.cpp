#include <zb/modulelibrary.hpp>
#include <zb/zbmodule.hpp>

/// A module in a library of its own.
class LoadedModule : public ZB::ZBModule
{
public:
  LoadedModule(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
  {
    functionName("answer", name, "Give a number");
    bindMethod(this, &LoadedModule::answer);
  }

  int answer() { return 42; }
};

ZB_MODULE_LIBRARY(LoadedModule, "Loaded")
