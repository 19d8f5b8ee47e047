#include "stopall.hpp"

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

} // namespace

void stopAll(Context& context)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const auto frames = session->service("ZBFrameManager").value();
  // The manager takes a behavior whose programs live on for stopped: its end tells.
  const auto unended = std::make_shared<Mailbox<std::string>>();
  frames
      .connect<std::string, std::string, std::string, std::string, std::string, std::string>(
          "instanceEnded",
          [unended](const std::string&, const std::string& name, const std::string& outcome, const std::string&, const std::string& message,
                    const std::string&)
          {
            if (outcome == "stopped" && !message.empty())
              unended->put("\"" + name + "\": " + message);
          })
      .value();
  const auto refusals = stopEach(behaviors.object(), behaviors.names("getRunningBehaviors"));
  std::vector<std::string> left;
  for (const auto& name : behaviors.names("getRunningBehaviors"))
  {
    const auto refusal = refusals.find(name);
    left.push_back("\"" + name + "\" " + (refusal == refusals.end() ? "was started meanwhile" : "still runs: " + refusal->second));
  }
  frames.delivered().wait();
  while (const auto text = unended->take(Mailbox<std::string>::Clock::now()))
    left.push_back(*text);
  if (!left.empty())
    throw CommandError("not everything is stopped: " + joined(left));
  if (context.json)
    return context.print({{"state", "stopped"}});
  context.out << "all behaviors stopped\n";
}

} // namespace Tarvik
