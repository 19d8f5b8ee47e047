#include <zb/zbmodulecore.hpp>

#include <stdexcept>
#include <utility>

#include <zb/zbbroker.hpp>

namespace ZB
{

ZBModuleCore::ZBModuleCore(std::shared_ptr<ZBBroker> broker, const std::string& name)
    : _name(name), _broker(std::move(broker)), _builder(name, _broker->pool())
{
}

ZBModuleCore::~ZBModuleCore() = default;

void ZBModuleCore::setModuleDescription(const std::string& description) { _builder.setDescription(description); }

void ZBModuleCore::functionName(const std::string& name, const std::string& className, const std::string& description, int)
{
  if (className != _name)
    throw std::logic_error("the method " + name + " of " + _name + " is described as one of " + className);
  if (description.empty())
    throw std::logic_error("the method " + _name + "." + name + " has no description");
  _method = vu::MethodDescription();
  _method->name = name;
  _method->description = description;
}

void ZBModuleCore::addParam(const std::string& name, const std::string& description)
{
  if (!_method)
    throw std::logic_error("the parameter " + name + " of " + _name + " belongs to no method");
  _method->parameters.push_back({name, description, {}});
}

void ZBModuleCore::setReturn(const std::string& name, const std::string& description)
{
  if (!_method)
    throw std::logic_error("the return " + name + " of " + _name + " belongs to no method");
  _method->returns = vu::ParameterDescription{name, description, {}};
}

void ZBModuleCore::setAccess(vu::Role least)
{
  if (!_method)
    throw std::logic_error("the access of " + _name + " belongs to no method");
  _method->access = least;
}

void ZBModuleCore::setUrgent()
{
  if (!_method)
    throw std::logic_error("the urgency of " + _name + " belongs to no method");
  _method->urgent = true;
}

vu::MethodDescription ZBModuleCore::takeMethod()
{
  if (!_method)
    throw std::logic_error("a method of " + _name + " is bound without a description");
  return *std::exchange(_method, std::nullopt);
}

} // namespace ZB
