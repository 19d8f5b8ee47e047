#include <variant>

#include <cli/text.hpp>

#include "context.hpp"
#include "interrupt.hpp"
#include "mailbox.hpp"

namespace Tarvik
{

namespace
{

struct Notification
{
  std::string method;
  vu::Value params;
  std::chrono::system_clock::time_point time;
};
struct Interrupted
{
};
struct Disconnected
{
  std::string reason;
};
using Letter = std::variant<Notification, Interrupted, Disconnected>;

/// Every signal of every service, and every event. The memory's own signal for
/// events would tell each of them twice.
void subscribeToAll(vu::RemoteSession& session)
{
  std::vector<vu::Future<vu::Value>> answers{session.call("session.subscribe", vu::Value::array({"*"}))};
  std::vector<vu::Future<vu::Value>> descriptions;
  for (const auto& service : session.services())
    descriptions.push_back(session.call("session.describe", vu::Value::array({service})));
  for (const auto& each : descriptions)
  {
    const auto description = each.value().get<vu::ObjectDescription>();
    for (const auto& signal : description.signals)
      if (description.name != "ZBMemory" || signal.name != "eventRaised")
        answers.push_back(session.call("session.connect", vu::Value::array({description.name, signal.name})));
  }
  for (const auto& answer : answers)
    answer.value();
}

void watch(Context& context)
{
  const auto mailbox = std::make_shared<Mailbox<Letter>>();
  const Interrupt interrupt([mailbox] { mailbox->put(Interrupted()); });
  const auto session = context.connect();
  session->setClosedCallback([mailbox](const std::string& reason) { mailbox->put(Disconnected{reason}); });
  const auto notified = [mailbox](const std::string& method, const vu::Value& params) {
    mailbox->put(Notification{method, params, std::chrono::system_clock::now()});
  };
  session->setNotificationCallback(notified);
  subscribeToAll(*session);
  context.error << "watching; Ctrl-C ends it" << std::endl;
  for (auto letter = mailbox->take(); !std::holds_alternative<Interrupted>(*letter); letter = mailbox->take())
  {
    if (const auto* disconnected = std::get_if<Disconnected>(&*letter))
      throw CommandError("the connection to the host ended: " + disconnected->reason + "; start watching again when it runs",
                         ExitCode::NoHost);
    const auto& notification = std::get<Notification>(*letter);
    if (context.json)
      context.print(notificationValue(notification.method, notification.params, notification.time));
    else
      context.out << formatNotification(notification.method, notification.params, notification.time) << std::endl;
  }
}

} // namespace

void addWatchCommand(Commands& commands) { commands.add("watch", "Shows signals and events as they come; Ctrl-C ends it", watch); }

} // namespace Tarvik
