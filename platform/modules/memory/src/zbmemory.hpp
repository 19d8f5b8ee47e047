#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <subscriberline.hpp>
#include <vu/orderedemitter.hpp>
#include <vu/signal.hpp>
#include <vu/value.hpp>
#include <zb/zbmodule.hpp>

namespace ZB
{

/// The service "ZBMemory": data and events of the platform, by key.
///
/// Events of all keys stand in one order, that in which their raises took
/// effect. Each subscribing module sees its share of it in that order, through
/// a line of its own (see SubscriberLine); a delivery stands there before the
/// raising call returns. The value an event leaves as data is that of the last
/// one in the order. `eventRaised` is emitted in the same order, on the thread
/// of a raiser and before each raising call returns, but for an event that is
/// raised inside the emission itself: that one follows when the emission is
/// over. A callback connected directly to `eventRaised` must be brief and must
/// not wait for a raise on another thread.
///
/// A subscription names its module and lives until it is ended or replaced;
/// when the module is loaded anew, the new instance gets the events. Every
/// failure is a ZBError that names the key. Thread-safe.
class ZBMemory : public ZBModule
{
public:
  ZBMemory(std::shared_ptr<ZBBroker> broker, const std::string& name);
  ~ZBMemory() override;

  /// Declaring again is no error.
  void declareEvent(const std::string& key);
  /// Refuses an undeclared key. The value is kept as data.
  void raiseEvent(const std::string& key, const vu::Value& value);
  /// Refuses an undeclared key. The value is not kept.
  void raiseMicroEvent(const std::string& key, const vu::Value& value);
  /// Sorted.
  std::vector<std::string> getEventList();

  void insertData(const std::string& key, const vu::Value& value);
  vu::Value getData(const std::string& key);
  void removeData(const std::string& key);
  /// Sorted.
  std::vector<std::string> getDataListName();

  /// Both kinds are told of both kinds of raise; a second subscription of the
  /// same key and module replaces the first, whose deliveries under way stay
  /// its own. Neither key nor module need exist yet.
  void subscribeToEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method);
  void subscribeToMicroEvent(const std::string& key, const std::string& module, const std::string& message, const std::string& method);
  /// Afterwards no delivery begins any more; one that runs is not waited for.
  /// Unsubscribing what is not subscribed is no error.
  void unsubscribeToEvent(const std::string& key, const std::string& module);
  void unsubscribeToMicroEvent(const std::string& key, const std::string& module);

  vu::Signal<std::string, vu::Value> eventRaised;

private:
  struct Subscriber
  {
    std::shared_ptr<Subscription> subscription;
    std::shared_ptr<SubscriberLine> line;
  };

  void bindMethods();
  void raise(const char* method, const std::string& key, const vu::Value& value, bool keep);
  void subscribe(const char* method, const std::string& key, const std::string& module, const std::string& message,
                 const std::string& callback);
  void unsubscribe(const std::string& key, const std::string& module);
  std::shared_ptr<SubscriberLine> lineOf(const std::string& module);

  std::mutex _mutex; // guards the four members below; taken before the locks of lines, session, pool and emitter
  std::set<std::string> _events;
  std::map<std::string, vu::Value> _data;
  std::map<std::string, std::map<std::string, Subscriber>> _subscribers; ///< by key, by module
  /// A line lives as long as a subscription or a delivery needs it, so that a
  /// module never has two.
  std::map<std::string, std::weak_ptr<SubscriberLine>> _lines;
  vu::OrderedEmitter _emitter; ///< for eventRaised
};

} // namespace ZB
