#include <vu/object.hpp>

#include <map>
#include <mutex>
#include <stdexcept>

namespace vu
{

struct Object::Shared
{
  using Delivery = detail::Subscriber<Value>;

  explicit Shared(std::shared_ptr<ObjectBackend> service) : backend(std::move(service)), line(Line::create(backend->pool())) {}

  const std::shared_ptr<ObjectBackend> backend;
  const std::shared_ptr<Line> line;
  std::mutex mutex; // guards deliveries
  std::map<SignalLink, std::shared_ptr<Delivery>> deliveries;
};

Object::Object(std::shared_ptr<ObjectBackend> backend) : _shared(backend ? std::make_shared<Shared>(std::move(backend)) : nullptr) {}

const std::shared_ptr<ObjectBackend>& Object::backend() const
{
  if (!_shared)
    throw std::runtime_error("This object is null");
  return _shared->backend;
}

const std::string& Object::name() const { return backend()->name(); }

ObjectDescription Object::description() const { return backend()->description(); }

Future<Value> Object::callValues(const std::string& method, const Value& arguments) const { return backend()->call(method, arguments); }

Future<Value> Object::asyncValues(const std::string& method, Value arguments) const { return backend()->post(method, std::move(arguments)); }

Future<SignalLink> Object::connectValues(const std::string& signal, SignalBase::ValuesCallback callback) const
{
  auto delivery = std::make_shared<Shared::Delivery>(std::move(callback));
  const auto connected = backend()->connect(signal, [line = _shared->line, delivery](const Value& arguments)
                                            { line->push([delivery, arguments] { delivery->run(arguments); }); });
  const Promise<SignalLink> promise(backend()->pool());
  connected.forward(promise,
                    [shared = std::weak_ptr<Shared>(_shared), delivery](SignalLink link)
                    {
                      if (const auto alive = shared.lock())
                      {
                        const std::lock_guard lock(alive->mutex);
                        alive->deliveries.emplace(link, delivery);
                      }
                      return link;
                    });
  return promise.future();
}

void Object::disconnect(SignalLink link) const
{
  backend()->disconnect(link);
  std::shared_ptr<Shared::Delivery> delivery;
  {
    const std::lock_guard lock(_shared->mutex);
    const auto found = _shared->deliveries.find(link);
    if (found == _shared->deliveries.end())
      return;
    delivery = std::move(found->second);
    _shared->deliveries.erase(found);
  }
  delivery->close();
}

Future<void> Object::delivered() const
{
  backend();
  return _shared->line->passed();
}

} // namespace vu
