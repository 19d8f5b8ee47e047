#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>

#include <cli/text.hpp>

#include "behaviors.hpp"

namespace Tarvik
{

namespace
{

/// Among how many of the last runs those of one behavior are looked for.
constexpr int searchedRuns = 10000;

std::string localTime(std::int64_t milliseconds)
{
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, "%Y-%m-%d %H:%M:%S");
  return text.str();
}

std::vector<std::string> row(const vu::Value& run)
{
  const bool ended = run.at("end").is_number();
  const bool running = run.at("outcome") == "running";
  const auto begin = run.at("begin").get<std::int64_t>();
  const auto duration = ended ? formatDuration(std::chrono::milliseconds(run.at("end").get<std::int64_t>() - begin)) : std::string();
  return {run.at("behavior"), localTime(begin), duration, running ? "running" : singleLine(run.at("reason")), run.at("startedBy")};
}

void history(Context& context, const std::string& name, int limit)
{
  const auto session = context.connect();
  auto runs = session->service("RunHistory").value().call<std::vector<vu::Value>>("getRuns", name.empty() ? limit : searchedRuns);
  if (!name.empty())
  {
    // Not resolved: a behavior of the past need not be installed any more.
    std::erase_if(runs,
                  [&name](const vu::Value& run)
                  {
                    const auto behavior = run.at("behavior").get<std::string>();
                    return behavior != name && behavior != name + "/." && !behavior.ends_with("/" + name);
                  });
    runs.resize(std::min(runs.size(), static_cast<std::size_t>(limit)));
  }
  if (context.json)
    return context.print(runs);
  if (runs.empty())
  {
    context.out << (name.empty() ? "no behavior has played yet" : "no run of \"" + name + "\" is remembered")
                << "; \"tarvik run NAME\" plays one\n";
    return;
  }
  std::vector<std::vector<std::string>> table{{"BEHAVIOR", "BEGAN", "DURATION", "END", "STARTED BY"}};
  for (const auto& run : runs)
    table.push_back(row(run));
  context.out << formatTable(table);
}

} // namespace

void addHistoryCommand(Commands& commands)
{
  const auto name = std::make_shared<std::string>();
  const auto limit = std::make_shared<int>(20);
  auto* command =
      commands.add("history", "Lists the last runs of behaviors, the newest first: when, how long, why they ended, who started them",
                   [name, limit](Context& context) { history(context, *name, *limit); });
  command->add_option("NAME", *name, "Only this behavior");
  command->add_option("--limit", *limit, "How many at most (20)")->type_name("N")->check(CLI::Range(1, 1000000));
}

} // namespace Tarvik
