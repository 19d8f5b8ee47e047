#include <playsettings.hpp>

#include <algorithm>
#include <map>
#include <stdexcept>

#include <dlfcn.h>

#include <environment.hpp>

namespace ZB::FrameManager
{

namespace
{

/// Beside the library that holds this code.
std::filesystem::path findGuard()
{
  Dl_info library = {};
  ::dladdr(reinterpret_cast<const void*>(&findGuard), &library);
  return std::filesystem::absolute(library.dli_fname ? library.dli_fname : "").parent_path() / "tarvik-guard";
}

struct Duration
{
  std::chrono::milliseconds PlaySettings::*member;
  int least;
  int greatest;
};

const std::map<std::string, Duration>& durations()
{
  static const std::map<std::string, Duration> all{{"terminateGraceMs", {&PlaySettings::terminateGrace, 0, 600'000}},
                                                   {"createTimeoutMs", {&PlaySettings::createTimeout, 1, 3'600'000}},
                                                   {"playTimeoutMs", {&PlaySettings::playTimeout, 1, 3'600'000}}};
  return all;
}

[[noreturn]] void refuse(const std::string& key, const std::string& wanted, const vu::Value& value)
{
  throw std::invalid_argument("the setting framemanager" + key + " must be " + wanted + ", not " + value.dump());
}

std::vector<std::string> readNames(const vu::Value& names)
{
  const auto good = [](const vu::Value& name) { return name.is_string() && namesVariables(name.get<std::string>()); };
  if (!names.is_array() || !std::all_of(names.begin(), names.end(), good))
    refuse(".environment", "an array of names of variables, such as [\"DISPLAY\", \"ROS_*\"], without those of TARVIK_", names);
  return names.get<std::vector<std::string>>();
}

} // namespace

PlaySettings readSettings(const vu::Value& configuration)
{
  PlaySettings settings;
  std::vector<std::string> variables;
  const auto own = configuration.value("framemanager", vu::Value::object());
  if (!own.is_object())
    refuse("", "an object", own);
  for (const auto& [key, value] : own.items())
    if (const auto duration = durations().find(key); duration != durations().end())
    {
      const auto& [member, least, greatest] = duration->second;
      if (!value.is_number_integer() || value < least || value > greatest)
        refuse("." + key, "a whole number from " + std::to_string(least) + " to " + std::to_string(greatest), value);
      settings.*member = std::chrono::milliseconds(value.get<int>());
    }
    else if (key == "environment")
      variables = readNames(value);
    else if (key != "guard")
      throw std::invalid_argument("there is no setting framemanager." + key);
    else if (!value.is_string() || !std::filesystem::path(value.get<std::string>()).is_absolute())
      refuse(".guard", "the absolute path of tarvik-guard", value);
    else
      settings.guard = value.get<std::string>();
  settings.environment = inheritedEnvironment(variables);
  if (configuration.contains("url"))
    settings.environment.push_back("TARVIK_URL=" + configuration.at("url").get<std::string>());
  if (configuration.contains("certificate"))
    settings.environment.push_back("TARVIK_CERTIFICATE=" + configuration.at("certificate").get<std::string>());
  if (settings.guard.empty())
    settings.guard = findGuard();
  return settings;
}

} // namespace ZB::FrameManager
