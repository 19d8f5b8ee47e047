#include "stopping.hpp"

#include <algorithm>
#include <map>

#include <cli/text.hpp>

#include "behaviors.hpp"
#include "mailbox.hpp"

namespace Tarvik
{

namespace
{

/// Below what one connection may have open.
constexpr std::size_t stopsAtOnce = 100;

/// Why the stops were refused, by behavior.
std::map<std::string, std::string> stopEach(const vu::Object& manager, const std::vector<std::string>& names)
{
  std::map<std::string, std::string> refusals;
  for (std::size_t begun = 0; begun < names.size(); begun += stopsAtOnce)
  {
    std::vector<std::pair<std::string, vu::Future<void>>> stops;
    for (std::size_t i = begun; i < std::min(begun + stopsAtOnce, names.size()); ++i)
      stops.emplace_back(names[i], manager.async<void>("stopBehavior", names[i]));
    for (const auto& [name, stop] : stops)
      if (stop.hasError())
        refusals.emplace(name, stop.error());
  }
  return refusals;
}

/// What could not be ended. The behavior manager takes a behavior whose
/// programs live on for stopped; the frame manager tells how it ended.
class Unended
{
public:
  /// Asks in the same flight as what is asked next.
  explicit Unended(vu::RemoteSession& session)
      : _frames(session.service("ZBFrameManager").value()),
        _connected(_frames.connect<std::string, std::string, std::string, std::string, std::string, std::string>(
            "instanceEnded",
            [letters = _letters](const std::string&, const std::string& name, const std::string& outcome, const std::string&,
                                 const std::string& message, const std::string&)
            {
              if (outcome == "stopped" && !message.empty())
                letters->put({name, message});
            }))
  {
  }

  /// Of the ends before the last answer: names and reasons.
  std::vector<std::pair<std::string, std::string>> told() const
  {
    _connected.value();
    _frames.delivered().wait();
    std::vector<std::pair<std::string, std::string>> all;
    while (auto letter = _letters->take(Letters::Clock::now()))
      all.push_back(*std::move(letter));
    return all;
  }

private:
  using Letters = Mailbox<std::pair<std::string, std::string>>;

  const std::shared_ptr<Letters> _letters = std::make_shared<Letters>();
  const vu::Object _frames;
  const vu::Future<vu::SignalLink> _connected;
};

} // namespace

void stopOne(Context& context, const std::string& name)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const Unended unended(*session);
  const auto stopped = behaviors.object().async<void>("stopBehavior", name);
  const auto resolved = behaviors.resolve(name);
  stopped.value();
  for (const auto& [left, reason] : unended.told())
    if (left == resolved)
      throw CommandError("\"" + left + "\" is not stopped: " + reason);
  if (context.json)
    return context.print({{"name", resolved}, {"state", "stopped"}});
  context.out << resolved << " stopped\n";
}

void stopAll(Context& context)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const Unended unended(*session);
  const auto refusals = stopEach(behaviors.object(), behaviors.names("getRunningBehaviors"));
  std::vector<std::string> left;
  for (const auto& name : behaviors.names("getRunningBehaviors"))
  {
    const auto refusal = refusals.find(name);
    left.push_back("\"" + name + "\" " + (refusal == refusals.end() ? "was started meanwhile" : "still runs: " + refusal->second));
  }
  for (const auto& [name, reason] : unended.told())
    left.push_back("\"" + name + "\": " + reason);
  if (!left.empty())
    throw CommandError("not everything is stopped: " + joined(left));
  if (context.json)
    return context.print({{"state", "stopped"}});
  context.out << "all behaviors stopped\n";
}

} // namespace Tarvik
