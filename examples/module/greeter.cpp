#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include <vu/signal.hpp>
#include <zb/modulelibrary.hpp>
#include <zb/zberror.hpp>
#include <zb/zbmemoryproxy.hpp>
#include <zb/zbmodule.hpp>

namespace
{

/// Greets whoever asks: a method with a result and an error, a signal, a
/// memory event and a page, which is all that a module can have.
class Greeter : public ZB::ZBModule
{
public:
  Greeter(std::shared_ptr<ZB::ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name), _memory(getParentBroker())
  {
    setModuleDescription("Greets by name, and counts.");
    functionName("greet", getName(), "Greets somebody.");
    addParam("who", "The name, not empty.");
    setReturn("greeting", "What is said.");
    bindMethod(this, &Greeter::greet);
    advertiseSignal("greeted", _greeted);
    _memory.declareEvent(eventKey);
  }

  std::string greet(const std::string& who)
  {
    if (who.empty())
      throw ZB::ZBError(getName(), "greet", "there is nobody to greet: the name is empty");
    const auto count = ++_count;
    _greeted(who);
    _memory.raiseEvent(eventKey, count);
    return "Hello, " + who + "!";
  }

  std::string httpGet() override
  {
    return "<!DOCTYPE html><title>" + getName() + "</title><p>Greeted " + std::to_string(_count) + " times.</p>";
  }

private:
  static constexpr auto eventKey = "Greeter/Count";

  const ZB::ZBMemoryProxy _memory;
  std::atomic<int> _count = 0;
  vu::Signal<std::string> _greeted;
};

} // namespace

ZB_MODULE_LIBRARY(Greeter, "Greeter")
