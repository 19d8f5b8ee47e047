#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <vu/line.hpp>
#include <vu/object.hpp>
#include <vu/objectbuilder.hpp>
#include <vu/session.hpp>
#include <vu/threadpool.hpp>
#include <vu/value.hpp>

namespace ZB
{

/// What a module wants to be told, and how.
struct Subscription
{
  std::string key;
  std::string module;
  std::string message;
  std::string method;
  /// Set by unsubscribing: deliveries that still stand in the line are skipped.
  std::atomic<bool> ended = false;
};

/// The line of one subscribing module: events of all keys, first in first out,
/// one at a time, on the pool. A delivery belongs to the instance of the
/// module that lives, or is being constructed, when it is pushed; it waits for
/// the construction without holding a thread, and is skipped when that fails
/// or the instance has gone. A method that gives a future is done, as far as
/// the line goes, when it has returned. Thread-safe; what has been pushed is
/// delivered even if the line's handle dies.
class SubscriberLine : public std::enable_shared_from_this<SubscriberLine>
{
public:
  SubscriberLine(std::string module, std::shared_ptr<vu::LocalSession> session, std::shared_ptr<vu::ThreadPool> pool);

  /// Does not block, and runs nothing on this thread.
  void push(const std::shared_ptr<const Subscription>& subscription, const std::shared_ptr<const vu::Value>& value);

private:
  void deliver(vu::ObjectBackend& subscriber, const std::shared_ptr<const Subscription>& subscription, const vu::Value& value) const;
  void reportFailure(const Subscription& subscription, const std::exception_ptr& error) const;

  const std::string _module;
  const std::shared_ptr<vu::LocalSession> _session;
  const std::shared_ptr<vu::Line> _line;
};

} // namespace ZB
