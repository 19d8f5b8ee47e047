#include "testplatform.hpp"

#include <cstdlib>
#include <stdexcept>

#include <boost/thread/lock_guard.hpp>

#include <zb/zberror.hpp>

namespace ZB::BehaviorManager
{

namespace
{

std::filesystem::path makeTemporaryDirectory()
{
  auto pattern = (std::filesystem::temp_directory_path() / "behaviormanager-XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    throw std::runtime_error("cannot create " + pattern);
  return pattern;
}

} // namespace

TestPlatform::TestPlatform() : directory(makeTemporaryDirectory()), broker(ZBBroker::create()) {}

TestPlatform::~TestPlatform()
{
  broker->shutdown();
  std::filesystem::remove_all(directory);
}

vu::PackageInfo TestPlatform::makePackage(const std::string& uuid, const std::list<vu::BehaviorInfo>& behaviors,
                                          const std::string& installer)
{
  vu::PackageInfo::Data data;
  data.uuid = uuid;
  data.installer = installer;
  data.path = (directory / uuid).string();
  data.behaviors = behaviors;
  for (const auto& behavior : behaviors)
    std::filesystem::create_directories(directory / uuid / behavior.path());
  return vu::PackageInfo(std::move(data));
}

std::list<vu::BehaviorInfo> TestPlatform::paths(const std::vector<std::string>& paths)
{
  std::list<vu::BehaviorInfo> behaviors;
  for (const auto& path : paths)
    behaviors.emplace_back(path);
  return behaviors;
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
  const auto service = broker->session()->find("ZBBehaviorManager");
  for (const auto& signal : service->description().signals)
    service
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

std::string errorOf(const std::function<void()>& action)
{
  try
  {
    action();
  }
  catch (const ZBError& error)
  {
    return error.module() == "ZBBehaviorManager" ? error.method() + ": " + error.description() : "of another module: " + error.module();
  }
  return "no error";
}

bool ModuleAccess::hasRecord(const std::string& path)
{
  const boost::lock_guard<boost::mutex> lock(module._registryMutex);
  return module._behaviors.count(path) != 0;
}

} // namespace ZB::BehaviorManager
