#include <subscriberline.hpp>

#include <utility>

#include <vu/error.hpp>
#include <vu/log.hpp>
#include <vu/text.hpp>

namespace ZB
{

SubscriberLine::SubscriberLine(std::string module, std::shared_ptr<vu::LocalSession> session, std::shared_ptr<vu::ThreadPool> pool)
    : _module(std::move(module)), _session(std::move(session)), _line(vu::Line::create(std::move(pool), "events for " + _module))
{
}

void SubscriberLine::push(const std::shared_ptr<const Subscription>& subscription, const std::shared_ptr<const vu::Value>& value)
{
  // Holds this object, and the memory's line for the module with it, until it is done.
  if (std::shared_ptr<vu::ObjectBackend> subscriber = _session->find(_module))
    return _line->push([self = shared_from_this(), subscriber, subscription, value] { self->deliver(*subscriber, subscription, *value); });
  const auto construction = _session->whenConstructed(_module);
  _line->push(
      [self = shared_from_this(), construction, subscription, value]
      {
        if (!construction.hasError())
          self->deliver(*construction.value().backend(), subscription, *value);
      },
      construction);
}

void SubscriberLine::deliver(vu::ObjectBackend& subscriber, const std::shared_ptr<const Subscription>& subscription,
                             const vu::Value& value) const
{
  if (subscription->ended)
    return;
  try
  {
    const auto result = subscriber.call(subscription->method, vu::Value::array({subscription->key, value, subscription->message}));
    if (!result.isFinished())
      result.then(
          [self = shared_from_this(), subscription](const auto& future)
          {
            if (future.hasError())
              self->reportFailure(*subscription, future.exception());
          });
    else if (result.hasError())
      reportFailure(*subscription, result.exception());
  }
  catch (...)
  {
    reportFailure(*subscription, std::current_exception());
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
                   _module + "." + subscription.method + " failed on the event " + vu::inQuotes(subscription.key) + ": " +
                       vu::errorText(error));
}

} // namespace ZB
