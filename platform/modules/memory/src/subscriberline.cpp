#include <subscriberline.hpp>

#include <utility>

#include <common/text.hpp>
#include <vu/caller.hpp>
#include <vu/error.hpp>
#include <vu/log.hpp>

namespace ZB
{

SubscriberLine::SubscriberLine(std::string module, std::shared_ptr<vu::LocalSession> session, std::shared_ptr<vu::ThreadPool> pool)
    : _module(std::move(module)), _session(std::move(session)), _pool(std::move(pool))
{
}

void SubscriberLine::push(std::shared_ptr<const Subscription> subscription, std::shared_ptr<const vu::Value> value)
{
  Delivery delivery{std::move(subscription), std::move(value), vu::currentCaller(), _session->find(_module), {}};
  if (!delivery.subscriber)
    delivery.construction = _session->whenConstructed(_module);
  {
    const std::lock_guard lock(_mutex);
    _deliveries.push_back(std::move(delivery));
    if (std::exchange(_running, true))
      return;
  }
  postNext();
}

void SubscriberLine::postNext()
{
  _pool->post([self = shared_from_this()] { self->runNext(); });
}

void SubscriberLine::runNext()
{
  Delivery delivery;
  {
    const std::lock_guard lock(_mutex);
    delivery = _deliveries.front();
  }
  if (delivery.construction.valid() && !delivery.construction.isFinished())
  {
    delivery.construction.then([self = shared_from_this()](const auto&) { self->runNext(); });
    return;
  }
  deliver(delivery);
  {
    const std::lock_guard lock(_mutex);
    _deliveries.pop_front();
    _running = !_deliveries.empty();
    if (!_running)
      return;
  }
  postNext();
}

void SubscriberLine::deliver(const Delivery& delivery) const
{
  const auto& subscription = *delivery.subscription;
  std::shared_ptr<vu::ObjectBackend> subscriber = delivery.subscriber;
  if (!subscriber && !delivery.construction.hasError())
    subscriber = delivery.construction.value().backend();
  if (!subscriber || subscription.ended)
    return;
  const vu::CallerScope caller(delivery.caller);
  try
  {
    const auto result = subscriber->call(subscription.method, vu::Value::array({subscription.key, *delivery.value, subscription.message}));
    if (!result.isFinished())
      result.then(
          [self = shared_from_this(), subscription = delivery.subscription](const auto& future)
          {
            if (future.hasError())
              self->reportFailure(*subscription, future.exception());
          });
    else if (result.hasError())
      reportFailure(subscription, result.exception());
  }
  catch (...)
  {
    reportFailure(subscription, std::current_exception());
  }
}

void SubscriberLine::reportFailure(const Subscription& subscription, const std::exception_ptr& error) const
{
  try
  {
    std::rethrow_exception(error);
  }
  catch (const vu::ServiceError& failure)
  {
    if (failure.kind() == vu::ServiceError::Kind::UnknownService && failure.module() == _module)
      return; // it has gone meanwhile
  }
  catch (...)
  {
  }
  vu::log::warning("memory", "SubscriberLine::deliver",
                   _module + "." + subscription.method + " failed on the event " + common::inQuotes(subscription.key) + ": " +
                       vu::errorText(error));
}

} // namespace ZB
