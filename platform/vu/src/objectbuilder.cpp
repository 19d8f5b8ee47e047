#include <vu/objectbuilder.hpp>

#include <stdexcept>

namespace vu
{

ObjectBuilder::ObjectBuilder(std::string name, std::shared_ptr<ThreadPool> pool)
    : _object(new LocalObject(std::move(name), std::move(pool)))
{
}

void ObjectBuilder::setDescription(std::string description)
{
  const std::lock_guard lock(_object->_mutex);
  _object->_description.description = std::move(description);
}

void ObjectBuilder::advertiseSignal(const std::string& name, SignalBase& signal)
{
  const std::lock_guard lock(_object->_mutex);
  if (!_object->_signals.emplace(name, signal.state()).second)
    throw std::logic_error("the signal " + name + " is advertised twice");
  _object->_description.signals.push_back({name, signal.argumentTypes()});
}

void ObjectBuilder::xAdd(MethodDescription description, std::vector<std::string> types, const std::string& returnType,
                         LocalObject::Invoke invoke)
{
  if (description.parameters.size() > types.size())
    throw std::logic_error("the method " + description.name + " has fewer parameters than are described");
  description.parameters.resize(types.size());
  for (std::size_t i = 0; i < types.size(); ++i)
    description.parameters[i].type = std::move(types[i]);
  if (description.returns)
    description.returns->type = returnType;
  const std::lock_guard lock(_object->_mutex);
  if (!_object->_methods.emplace(description.name, std::move(invoke)).second)
    throw std::logic_error("the method " + description.name + " is advertised twice");
  _object->_description.methods.push_back(std::move(description));
}

} // namespace vu
