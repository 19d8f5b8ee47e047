#include <zb/zbbroker.hpp>

#include <algorithm>
#include <stdexcept>

#include <dlfcn.h>

#include <boost/dll/shared_library.hpp>

#include <vu/error.hpp>
#include <zb/zbproxy.hpp>

namespace ZB
{

namespace
{

/// Until the process ends: futures and errors in clients' hands may hold code
/// of the library.
void keepMapped(boost::dll::shared_library library)
{
  static std::mutex mutex; // guards kept
  static auto* const kept = new std::vector<boost::dll::shared_library>;
  const std::lock_guard lock(mutex);
  kept->push_back(std::move(library));
}

} // namespace

std::shared_ptr<ZBBroker> ZBBroker::create(Options options) { return std::shared_ptr<ZBBroker>(new ZBBroker(std::move(options))); }

ZBBroker::ZBBroker(Options options)
    : _pool(std::make_shared<vu::ThreadPool>(options.pool)), _session(std::make_shared<vu::LocalSession>(_pool)),
      _configuration(std::move(options.configuration))
{
}

// Modules hold their broker: when this runs, there are none. The pool closes
// when its last holder lets go of it, on whatever thread that is.
ZBBroker::~ZBBroker() { _session->close(); }

std::shared_ptr<ZBProxy> ZBBroker::getProxy(const std::string& name, int flag)
{
  if (!_session->find(name))
    return nullptr;
  return std::make_shared<ZBProxy>(shared_from_this(), name, flag, 0);
}

void ZBBroker::add(std::unique_ptr<ZBModule> module)
{
  // It stands among the modules before anyone can call it.
  const auto object = module->serviceObject();
  {
    const std::lock_guard lock(_mutex);
    _modules.push_back(std::move(module));
  }
  try
  {
    _session->publish(object);
  }
  catch (...) // somebody else published the name meanwhile
  {
    const auto refused = take(object->name());
    object->end();
    throw;
  }
}

void ZBBroker::loadLibrary(const std::filesystem::path& file)
{
  boost::dll::shared_library library;
  boost::dll::fs::error_code error;
  library.load(file.string(), error);
  if (error)
  {
    const char* const reason = dlerror(); // says more than the error code
    throw std::runtime_error("cannot load the module library " + file.string() + ": " + (reason ? reason : error.message()));
  }
  if (!library.has("zbLoadModule"))
    throw std::runtime_error("the library " + file.string() +
                             " is no module: it has no entry point zbLoadModule (write one with ZB_MODULE_LIBRARY)");
  const auto& entryPoint = library.get<void(ZBBroker*)>("zbLoadModule");
  keepMapped(std::move(library));
  entryPoint(this);
}

std::vector<std::string> ZBBroker::modules() const
{
  const std::lock_guard lock(_mutex);
  std::vector<std::string> names;
  for (const auto& module : _modules)
    names.push_back(module->getName());
  return names;
}

std::string ZBBroker::httpGet(const std::string& name)
{
  ZBModule* page = nullptr;
  vu::Gate::Pass pass;
  {
    const std::lock_guard lock(_mutex);
    const auto found = std::find_if(_modules.begin(), _modules.end(), [&name](const auto& module) { return module->getName() == name; });
    if (found != _modules.end())
    {
      pass = (*found)->serviceObject()->enter();
      page = found->get();
    }
  }
  if (!pass)
    throw vu::ServiceError(name, "httpGet", "there is no module " + name, vu::ServiceError::Kind::UnknownService);
  return page->httpGet();
}

std::unique_ptr<ZBModule> ZBBroker::take(const std::string& name)
{
  const std::lock_guard lock(_mutex);
  const auto found = std::find_if(_modules.begin(), _modules.end(), [&name](const auto& entry) { return entry->getName() == name; });
  if (found == _modules.end())
    return nullptr;
  auto module = std::move(*found);
  _modules.erase(found);
  return module;
}

void ZBBroker::removeModule(const std::string& name)
{
  if (_pool->runsThisThread())
    throw std::logic_error("the module " + name + " cannot be removed on a thread of the pool");
  auto module = take(name);
  if (!module)
    return;
  _session->withdraw(name);
  const vu::CallerScope caller(name);
  module.reset();
}

void ZBBroker::shutdown()
{
  if (_pool->runsThisThread())
    throw std::logic_error("a broker cannot be shut down on a thread of its pool");
  for (;;)
  {
    std::string last;
    {
      const std::lock_guard lock(_mutex);
      if (_modules.empty())
        break;
      last = _modules.back()->getName();
    }
    removeModule(last);
  }
  _session->close();
  _pool->close();
}

} // namespace ZB
