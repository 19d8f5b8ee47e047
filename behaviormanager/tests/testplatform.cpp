#include "testplatform.hpp"

#include <future>

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

vu::PackageInfo TestPlatform::makePackage(const std::string& uuid, const std::vector<std::string>& paths, const std::string& installer)
{
  std::list<vu::BehaviorInfo> behaviors;
  for (const auto& path : paths)
    behaviors.emplace_back(path);
  return makePackageOf(uuid, behaviors, installer);
}

void TestPlatform::startServices(std::vector<vu::PackageInfo> packages)
{
  memory = &broker->createModule<StandInMemory>("ZBMemory", journal);
  preferences = &broker->createModule<StandInPreferences>("ZBPreferences", journal);
  packageManager = &broker->createModule<StandInPackageManager>("PackageManager", journal, std::move(packages));
  frames = &broker->createModule<StandInFrameManager>("ZBFrameManager", journal);
}

ZBBehaviorManager& TestPlatform::start(std::vector<vu::PackageInfo> packages)
{
  if (!memory)
    startServices(std::move(packages));
  manager = &broker->createModule<ZBBehaviorManager>("ZBBehaviorManager");
  const auto backend = broker->session()->find("ZBBehaviorManager");
  for (const auto& signal : backend->description().signals)
    backend
        ->connect(signal.name,
                  [this, name = signal.name](const vu::Value& arguments) { journal.add("signal " + name + " " + arguments.dump()); })
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
