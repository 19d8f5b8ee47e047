#include <behaviormanager/behaviormanager.hpp>

#include <exception>

#include <boost/algorithm/string/predicate.hpp>

#include "internal.hpp"

namespace ZB::BehaviorManager
{

vu::Future<void> ZBBehaviorManager::runBehavior(const std::string& behavior)
{
  const auto resolved = xResolve(behavior);
  const auto& path = resolved.path;
  if (path.empty())
    throw makeError("runBehavior", "behavior " + behavior + " is not installed");
  const auto running = _registry.xBehaviorRunningLock(path);
  const auto id = xStartBehavior(resolved);
  try
  {
    return xAwaitRun(behavior, path, id.empty() ? _registry.xFrameManagerId(path) : id);
  }
  catch (...)
  {
    xUnloadInstance(path, id); // the client believes that it does not run
    throw;
  }
}

vu::Future<void> ZBBehaviorManager::xAwaitRun(const std::string& name, const std::string& path, const std::string& fmId)
{
  const auto proxy = getParentBroker()->getProxy("ZBFrameManager");
  const vu::Object frameManager = proxy ? vu::Object(*proxy) : vu::Object();
  // Gives its future at once; posted, it would need a place in the pool.
  const auto waited = frameManager.callValues("_waitForStopped", vu::Value::array({fmId}));
  const vu::Promise<void> promise(getParentBroker()->pool());
  xWhenReported(waited,
                [this, name, path, fmId, promise](const vu::Future<vu::Value>& ended, const vu::Gate::Pass& pass)
                {
                  if (pass)
                    _runBehaviorCont(ended, name, path, fmId, promise);
                  else if (ended.hasError()) // the module has gone and taken the behavior along
                    promise.setError(ended.error());
                  else
                    promise.setValue();
                });
  return promise.future();
}

/// Runs `action` when the wait for an instance has ended and its reports, which
/// stand in the line by then, have been heard; with an empty pass, and perhaps
/// without a module, when that has ended.
void ZBBehaviorManager::xWhenReported(const vu::Future<vu::Value>& waited, const WhenReported& action) const
{
  waited.then([gate = _gate, line = _frameManagerObject, action](const vu::Future<vu::Value>& ended)
              { line.delivered().then([gate, action, ended](const vu::Future<void>&) { action(ended, gate->enter()); }); });
}

void ZBBehaviorManager::_runBehaviorCont(const vu::Future<vu::Value>& waited, const std::string& name, const std::string& path,
                                         const std::string& fmId, const vu::Promise<void>& promise)
{
  try
  {
    std::string errors = waited.error();
    xUnloadInstance(path, fmId);
    // Behind a runBehavior() of the same behavior that has not returned yet.
    _registry.xBehaviorRunningLock(path);
    if (boost::algorithm::starts_with(name, systemBehaviorPrefix))
    {
      try
      {
        if (const auto self = getParentBroker()->getProxy(getName()))
          self->pCall("preloadBehavior", path);
      }
      catch (const ZBError& error)
      {
        errors += "Error caught reloading the behavior " + name + ": " + error.what() + "\n";
      }
    }
    if (errors.empty())
      promise.setValue();
    else
      promise.setError(errors);
  }
  catch (...)
  {
    promise.setException(std::current_exception());
  }
}

} // namespace ZB::BehaviorManager
