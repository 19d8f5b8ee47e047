#include <algorithm>
#include <filesystem>

#include <cli/text.hpp>
#include <vu/packageinfo.hpp>

#include "behaviors.hpp"
#include "mailbox.hpp"

namespace Tarvik
{

namespace
{

constexpr std::chrono::seconds announcementLimit(10);

/// What the behavior manager says about added or removed behaviors, heard from
/// before the change is asked for, so that none is missed.
class Announcements
{
public:
  Announcements(const Behaviors& behaviors, const std::string& signal)
  {
    behaviors.object()
        .connect<std::vector<std::string>>(signal, [mailbox = _mailbox](std::vector<std::string> names) { mailbox->put(std::move(names)); })
        .value();
  }

  /// Whether one about the package comes in time. One about no behavior at all
  /// is taken for it only when the package has none.
  bool waitFor(const vu::PackageInfo& package) const
  {
    const auto deadline = std::chrono::steady_clock::now() + announcementLimit;
    const auto about = [&package](const std::string& name) { return name == package.uuid() || name.starts_with(package.uuid() + "/"); };
    while (const auto names = _mailbox->take(deadline))
      if (package.behaviors().empty() ? names->empty() : std::any_of(names->begin(), names->end(), about))
        return true;
    return false;
  }

private:
  const std::shared_ptr<Mailbox<std::vector<std::string>>> _mailbox = std::make_shared<Mailbox<std::vector<std::string>>>();
};

std::vector<std::string> behaviorNames(const vu::PackageInfo& package)
{
  std::vector<std::string> names;
  for (const auto& behavior : package.behaviors())
    names.push_back(behavior.path() == "." ? package.uuid() : package.uuid() + "/" + behavior.path());
  return names;
}

/// What a package asks to call, and what is wrong with its projects.
void tell(const Context& context, const vu::Value& checked)
{
  for (const auto& call : checked.at("may"))
    context.out << "  may call " << call.get<std::string>() << "\n";
  for (const auto& fault : checked.at("faults"))
    context.out << fault.at("file").get<std::string>() << ":" << fault.at("line") << ": " << fault.at("text").get<std::string>() << "\n";
}

void finish(const Context& context, const vu::PackageInfo& package, const std::string& state, bool announced,
            const vu::Value& more = vu::Value::object())
{
  if (context.json)
  {
    vu::Value answer{{"uuid", package.uuid()},
                     {"version", package.version()},
                     {"state", state},
                     {"behaviors", behaviorNames(package)},
                     {"announced", announced}};
    answer.update(more);
    context.print(answer);
  }
  else
  {
    context.out << package.uuid() << " " << state << "\n";
    for (const auto& name : behaviorNames(package))
      context.out << "  " << name << "\n";
  }
  context.out.flush();
  if (!announced)
    throw CommandError("the package \"" + package.uuid() + "\" is " + state +
                       ", but the behavior manager did not announce it within 10 s; see the host's log");
}

void install(Context& context, const std::string& path)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const Announcements announcements(behaviors, "behaviorsAdded");
  const auto manager = session->service("PackageManager").value();
  const auto place = std::filesystem::absolute(path).string();
  const auto checked = manager.call<vu::Value>("check", place);
  if (!context.json)
    tell(context, checked);
  context.out.flush();
  const auto uuid = manager.call<std::string>("install", place, std::string("tarvik"));
  const auto package = manager.call<vu::PackageInfo>("package", uuid);
  finish(context, package, "installed", announcements.waitFor(package), {{"may", package.may()}, {"faults", checked.at("faults")}});
}

void removePackage(Context& context, const std::string& uuid)
{
  const auto session = context.connect();
  const Behaviors behaviors(*session);
  const Announcements announcements(behaviors, "behaviorsRemoved");
  const auto manager = session->service("PackageManager").value();
  if (!manager.call<bool>("hasPackage", uuid))
    throw CommandError("no package \"" + uuid + "\" is installed; \"tarvik package list\" shows those that are");
  const auto package = manager.call<vu::PackageInfo>("package", uuid);
  manager.call<void>("remove", uuid);
  finish(context, package, "removed", announcements.waitFor(package));
}

void listPackages(Context& context)
{
  const auto session = context.connect();
  const auto packages = session->service("PackageManager").value().call<std::vector<vu::PackageInfo>>("packages");
  if (context.json)
    return context.print(packages);
  if (packages.empty())
  {
    context.out << "no package is installed; \"tarvik package install PATH\" installs one\n";
    return;
  }
  std::vector<std::vector<std::string>> table{{"PACKAGE", "VERSION", "INSTALLER", "BEHAVIORS", "NAME"}};
  for (const auto& package : packages)
    table.push_back(
        {package.uuid(), package.version(), package.installer(), std::to_string(package.behaviors().size()), package.name("en_US")});
  context.out << formatTable(table);
}

void check(Context& context, const std::string& path)
{
  const auto session = context.connect();
  const auto checked = session->service("PackageManager").value().call<vu::Value>("check", std::filesystem::absolute(path).string());
  const vu::PackageInfo package(checked);
  const auto faults = checked.at("faults").size();
  if (context.json)
    context.print(checked);
  else
  {
    context.out << path << " is the package " << package.uuid() << " " << package.version() << (faults == 0 ? ", without a fault\n" : "\n");
    for (const auto& name : behaviorNames(package))
      context.out << "  " << name << "\n";
    tell(context, checked);
  }
  context.out.flush();
  if (faults != 0)
    throw CommandError("the package \"" + package.uuid() + "\" has " + std::to_string(faults) + (faults == 1 ? " project" : " projects") +
                       " with a fault, which cannot be loaded");
}

} // namespace

void addPackageCommands(Commands& commands)
{
  auto* group = commands.addGroup("package", "Packages of behaviors");
  const auto text = std::make_shared<std::string>();
  commands
      .add(*group, "install", "Installs a directory or a zip archive; replaces the package if it is there",
           [text](Context& context) { install(context, *text); })
      ->add_option("PATH", *text, "The package")
      ->required();
  commands.add(*group, "remove", "Removes a package", [text](Context& context) { removePackage(context, *text); })
      ->add_option("UUID", *text, "The package")
      ->required();
  commands.add(*group, "list", "Lists the packages", listPackages);
  commands
      .add(*group, "check", "Tells whether a directory or a zip archive could be installed",
           [text](Context& context) { check(context, *text); })
      ->add_option("PATH", *text, "The package")
      ->required();
}

} // namespace Tarvik
