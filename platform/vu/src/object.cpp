#include <vu/object.hpp>

#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <vu/line.hpp>

namespace vu
{

namespace
{

class Delivery;

/// Every queued callback by its link: a connection outlives the handle it was
/// made through, and any other handle may end it.
struct Deliveries
{
  std::mutex mutex; // guards byLink
  std::map<SignalLink, std::weak_ptr<Delivery>> byLink;
};

Deliveries& deliveries()
{
  static auto* const all = new Deliveries; // never destroyed: connections may die late
  return *all;
}

/// The queued callback of one connection, which holds it.
class Delivery : public detail::Subscriber<Value>
{
public:
  using Subscriber::Subscriber;

  ~Delivery()
  {
    const std::lock_guard lock(deliveries().mutex);
    deliveries().byLink.erase(_link);
  }

  static void enter(const std::shared_ptr<Delivery>& delivery, SignalLink link)
  {
    const std::lock_guard lock(deliveries().mutex);
    delivery->_link = link;
    deliveries().byLink.emplace(link, delivery);
  }

private:
  SignalLink _link = SignalBase::invalidSignalLink;
};

} // namespace

struct Object::Shared
{
  explicit Shared(std::shared_ptr<ObjectBackend> service) : backend(std::move(service)) {}

  /// Made when it is first asked for: most handles only call.
  const std::shared_ptr<Line>& line()
  {
    std::call_once(_lineMade, [this] { _line = Line::create(backend->pool(), "signals of " + backend->name() + " to one handle"); });
    return _line;
  }

  const std::shared_ptr<ObjectBackend> backend;

private:
  std::once_flag _lineMade;
  std::shared_ptr<Line> _line;
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

Future<Value> Object::asyncValues(const std::string& method, Value arguments) const
{
  return backend()->post(method, std::move(arguments));
}

Future<SignalLink> Object::connectValues(const std::string& signal, SignalBase::ValuesCallback callback) const
{
  const auto& service = backend();
  auto delivery = std::make_shared<Delivery>(std::move(callback));
  const auto connected = service->connect(signal, [line = _shared->line(), delivery](const Value& arguments)
                                          { line->push([delivery, arguments] { delivery->run(arguments); }); });
  const Promise<SignalLink> promise(service->pool());
  connected.forward(promise,
                    [delivery](SignalLink link)
                    {
                      Delivery::enter(delivery, link);
                      return link;
                    });
  return promise.future();
}

void Object::disconnect(SignalLink link) const
{
  backend()->disconnect(link);
  std::shared_ptr<Delivery> delivery;
  {
    const std::lock_guard lock(deliveries().mutex);
    if (const auto found = deliveries().byLink.find(link); found != deliveries().byLink.end())
      delivery = found->second.lock();
  }
  if (delivery)
    delivery->close();
}

Future<void> Object::delivered() const
{
  backend();
  return _shared->line()->passed();
}

} // namespace vu
