#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

#include <vu/conversion.hpp>
#include <vu/gate.hpp>
#include <vu/objectbackend.hpp>

namespace vu
{

/// A service of this process: what ObjectBuilder made. It refers to the
/// instance without owning it; end() comes before the instance is destroyed.
class LocalObject final : public ObjectBackend, public std::enable_shared_from_this<LocalObject>
{
public:
  const std::string& name() const override { return _description.name; }
  ObjectDescription description() override;
  Future<Value> call(const std::string& method, const Value& arguments) override;
  Future<Value> post(const std::string& method, Value arguments) override;
  /// The call is made only if `wanted`, asked when a thread takes it up, says so.
  Future<Value> post(const std::string& method, Value arguments, std::function<bool()> wanted);
  Future<SignalLink> connect(const std::string& signal, SignalBase::ValuesCallback callback) override;
  void disconnect(SignalLink link) override;
  const std::shared_ptr<ThreadPool>& pool() const override { return _pool; }

  /// The first role that may call the method; by its name where there is none.
  Role leastRole(const std::string& method) const;
  bool givesFuture(const std::string& method) const;
  /// Whether its calls go ahead of others that wait.
  bool isUrgent(const std::string& method) const;

  /// A pass into the instance, empty once it has ended.
  Gate::Pass enter() { return _gate.enter(); }

  /// Refuses new calls with UnknownService and waits for those under way.
  void end();

private:
  friend class ObjectBuilder;
  /// A method gives its result at once, or a future of it.
  using Invoke = std::function<std::variant<Value, Future<Value>>(const Value& arguments)>;

  /// An argument does not fit; told apart from what a method throws itself.
  class ArgumentError : public ConversionError
  {
  public:
    using ConversionError::ConversionError;
  };

  LocalObject(std::string name, std::shared_ptr<ThreadPool> pool);

  const std::shared_ptr<ThreadPool> _pool;
  mutable std::mutex _mutex; // guards the four members below
  ObjectDescription _description;
  std::map<std::string, Invoke> _methods;
  std::map<std::string, std::shared_ptr<detail::SignalState>> _signals;
  std::map<SignalLink, std::shared_ptr<detail::SignalState>> _links;
  Gate _gate;
};

} // namespace vu
