#pragma once

#include <memory>
#include <optional>
#include <string>

#include <vu/description.hpp>
#include <vu/objectbuilder.hpp>
#include <vu/role.hpp>
#include <vu/signal.hpp>

namespace ZB
{

class ZBBroker;

/// What every module is made of: its name, its broker and the service object
/// on which it advertises its methods and signals while it is constructed.
class ZBModuleCore
{
public:
  virtual ~ZBModuleCore();
  ZBModuleCore(const ZBModuleCore&) = delete;
  ZBModuleCore& operator=(const ZBModuleCore&) = delete;

  const std::string& getName() const { return _name; }
  const std::shared_ptr<ZBBroker>& getParentBroker() const { return _broker; }

  /// The module's page, an HTML document; empty for a module without one.
  /// Called on any thread, several at once.
  virtual std::string httpGet() { return {}; }

  const std::shared_ptr<vu::LocalObject>& serviceObject() const { return _builder.object(); }

protected:
  ZBModuleCore(std::shared_ptr<ZBBroker> broker, const std::string& name);

  void setModuleDescription(const std::string& description);

  /// Opens the description of a method; `className` is the module's own name
  /// and `mask` 0. It is completed by addParam(), setReturn(), setAccess(),
  /// setUrgent() and bindMethod().
  /// Throws std::logic_error for a method without description.
  void functionName(const std::string& name, const std::string& className, const std::string& description, int mask = 0);
  void addParam(const std::string& name, const std::string& description);
  void setReturn(const std::string& name, const std::string& description);
  /// The first role that may call the method from outside the host. Where none
  /// is declared, its name decides: see vu::leastRoleByName().
  void setAccess(vu::Role least);

  /// The method ends something: its calls go ahead of others that wait. So do
  /// those of every method named stop….
  void setUrgent();

  /// Advertises the method whose description is open. Calls come on any
  /// thread, several at once, from the moment the module is published until
  /// the broker removes it.
  template <typename C, typename M> void bindMethod(C* instance, M member) { _builder.advertiseMethod(takeMethod(), instance, member); }

  /// The signal belongs to the module and must outlive its service.
  void advertiseSignal(const std::string& name, vu::SignalBase& signal) { _builder.advertiseSignal(name, signal); }

private:
  vu::MethodDescription takeMethod();

  const std::string _name;
  const std::shared_ptr<ZBBroker> _broker;
  vu::ObjectBuilder _builder;
  std::optional<vu::MethodDescription> _method;
};

} // namespace ZB
