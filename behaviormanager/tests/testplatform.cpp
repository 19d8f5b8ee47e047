#include "testplatform.hpp"

#include <future>

#include <zb/zberror.hpp>

namespace ZB::BehaviorManager
{

TestPlatform::TestPlatform(vu::ThreadPool::Limits pool) : broker(ZBBroker::create({pool, vu::Value::object()})) {}

vu::PackageInfo TestPlatform::makePackageOf(const std::string& uuid, const std::list<vu::BehaviorInfo>& behaviors,
                                            const std::string& installer)
{
  for (const auto& behavior : behaviors)
    std::filesystem::create_directories(directory / uuid / behavior.path());
  return vu::PackageInfo(vu::PackageInfo::Data{uuid, {}, installer, (directory / uuid).string(), {}, {}, behaviors});
}

vu::PackageInfo TestPlatform::makePackage(const std::string& uuid, const std::vector<std::string>& paths)
{
  return makePackageOf(uuid, {paths.begin(), paths.end()});
}

void TestPlatform::startServices(const std::vector<vu::PackageInfo>& packages)
{
  using Text = const std::string&;
  const auto offerMemory = [](StandIn& service)
  {
    service.offer("declareEvent", [](Text) {});
    service.offer("raiseMicroEvent", [](Text, const ZBValue&) {});
    for (const char* method : {"subscribeToEvent", "subscribeToMicroEvent"})
      service.offer(method, [](Text, Text, Text, Text) {});
  };
  const auto offerPreferences = [this](StandIn& service)
  {
    service.offer("readPrefFile",
                  [this](Text name, bool)
                  {
                    if (!preferenceFile)
                      throw ZBError("ZBPreferences", "readPrefFile", "there is no file " + name);
                    return *preferenceFile;
                  });
    service.offer("writePrefFile", [this](Text, const ZBValue& settings, bool) { preferenceFile = settings.value(); });
  };
  const auto offerPackages = [&](StandIn& service) { service.offer("packages", [packages] { return packages; }); };
  memory = &broker->createModule<StandIn>("ZBMemory", journal, offerMemory);
  preferences = &broker->createModule<StandIn>("ZBPreferences", journal, offerPreferences);
  packageManager = &broker->createModule<StandIn>("PackageManager", journal, offerPackages);
  frames = &broker->createModule<StandInFrameManager>("ZBFrameManager", journal);
}

ZBBehaviorManager& TestPlatform::start(const std::vector<vu::PackageInfo>& packages)
{
  if (!memory)
    startServices(packages);
  manager = &broker->createModule<ZBBehaviorManager>("ZBBehaviorManager");
  const auto backend = broker->session()->find("ZBBehaviorManager");
  for (const auto& signal : backend->description().signals)
    backend
        ->connect(signal.name,
                  [this, name = signal.name](const vu::Value& arguments)
                  {
                    journal.add("signal " + name + " " + arguments.dump());
                    enter(name);
                  })
        .value();
  return *manager;
}

void TestPlatform::stop()
{
  manager = nullptr;
  broker->removeModule("ZBBehaviorManager");
}

void TestPlatform::passPosted()
{
  std::promise<void> passed;
  broker->pool()->post([&] { passed.set_value(); });
  passed.get_future().wait();
}

std::string refusal(const std::function<void()>& action)
{
  try
  {
    action();
  }
  catch (const vu::ServiceError& error)
  {
    return error.module() + "." + error.method() + ": " + error.description();
  }
  return "no error";
}

} // namespace ZB::BehaviorManager
