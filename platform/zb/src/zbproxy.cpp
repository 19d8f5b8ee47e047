#include <zb/zbproxy.hpp>

#include <atomic>
#include <utility>

#include <vu/localobject.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>

namespace ZB
{

namespace
{

void logFailedPost(const std::string& service, const std::string& method, int task, const std::string& text)
{
  vu::log::warning("zb", "pCall", "posted call " + std::to_string(task) + " of " + service + "." + method + " failed: " + text);
}

} // namespace

ZBProxy::ZBProxy(std::shared_ptr<ZBBroker> broker, std::string name, int, int) : _broker(std::move(broker)), _name(std::move(name)) {}

ZBProxy::operator vu::Object() const { return vu::Object(_broker->session()->find(_name)); }

vu::Object ZBProxy::service(const std::string& method) const { return vu::Object(_broker->session()->require(_name, method)); }

int ZBProxy::postValues(const std::string& method, vu::Value arguments) const
{
  static std::atomic<int> lastTask{0};
  const int task = ++lastTask;
  service(method)
      .asyncValues(method, std::move(arguments))
      .then(
          [name = _name, method, task](const vu::Future<vu::Value>& result)
          {
            if (result.hasError())
              logFailedPost(name, method, task, result.error());
          });
  return task;
}

void ZBProxy::rethrowAsZBError(const std::string& method) const
{
  try
  {
    throw;
  }
  catch (const ZBError&)
  {
    throw;
  }
  catch (const vu::ServiceError& error)
  {
    throw ZBError(error);
  }
  catch (...)
  {
    throw ZBError(_name, method, vu::errorText(std::current_exception()));
  }
}

} // namespace ZB
