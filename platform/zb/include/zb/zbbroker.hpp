#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <vu/caller.hpp>
#include <vu/session.hpp>
#include <vu/threadpool.hpp>
#include <vu/value.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

class ZBProxy;

/// Owner of the modules of a process, of the service directory they appear in
/// and of the pool that their calls, continuations and deliveries run on.
///
/// Modules hold their broker; so whoever makes one ends it with shutdown().
class ZBBroker : public std::enable_shared_from_this<ZBBroker>
{
public:
  struct Options
  {
    vu::ThreadPool::Limits pool;
    /// An object that modules take their settings from; each documents its own.
    vu::Value configuration = vu::Value::object();
  };

  static std::shared_ptr<ZBBroker> create(Options options);
  static std::shared_ptr<ZBBroker> create() { return create(Options()); }
  ~ZBBroker();
  ZBBroker(const ZBBroker&) = delete;
  ZBBroker& operator=(const ZBBroker&) = delete;

  const std::shared_ptr<vu::LocalSession>& session() const { return _session; }
  const std::shared_ptr<vu::ThreadPool>& pool() const { return _pool; }
  const vu::Value& configuration() const { return _configuration; }

  /// An empty pointer when there is no such service. `flag` is of no use to
  /// this framework.
  std::shared_ptr<ZBProxy> getProxy(const std::string& name, int flag = 0);

  /// A proxy class made from a broker, which finds its service by `name`.
  template <typename P> std::shared_ptr<P> getSpecialisedProxy(const std::string& name)
  {
    return std::make_shared<P>(shared_from_this(), name);
  }

  /// Constructs a module on this thread and publishes it. What the
  /// constructor throws comes out; nothing is left of the module then.
  template <typename M, typename... Arguments> M& createModule(const std::string& name, Arguments&&... arguments)
  {
    const vu::CallerScope caller(name);
    auto module = std::make_unique<M>(shared_from_this(), name, std::forward<Arguments>(arguments)...);
    M& reference = *module;
    add(std::move(module));
    return reference;
  }

  /// Loads a module library and calls its entry point (see
  /// zb/modulelibrary.hpp). Throws std::runtime_error that names the file when
  /// it cannot be loaded or has no entry point; what the module's constructor
  /// throws comes out. The library stays mapped until the process ends.
  void loadLibrary(const std::filesystem::path& file);

  /// Names in the order of loading.
  std::vector<std::string> modules() const;

  /// The page of a module; throws a ServiceError of kind UnknownService when
  /// there is none of that name.
  std::string httpGet(const std::string& module);

  /// Withdraws the service, waits for the calls under way and destroys the
  /// module on this thread. Throws std::logic_error on a thread of the pool,
  /// which such a call may need. An unknown name is ignored.
  void removeModule(const std::string& name);

  /// Removes all modules, the last one loaded first, fails those who wait for
  /// a service, and closes the pool. Throws std::logic_error on a thread of
  /// the pool. A second call does nothing.
  void shutdown();

private:
  explicit ZBBroker(Options options);
  void add(std::unique_ptr<ZBModule> module);
  /// Out of the modules; null when there is none of that name.
  std::unique_ptr<ZBModule> take(const std::string& name);

  const std::shared_ptr<vu::ThreadPool> _pool;
  const std::shared_ptr<vu::LocalSession> _session;
  const vu::Value _configuration;
  mutable std::mutex _mutex; // guards _modules
  std::vector<std::unique_ptr<ZBModule>> _modules;
};

} // namespace ZB
