#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbproxy.hpp>
#include <zbpreferences.hpp>

#include "input.hpp"

namespace
{

struct Platform : ScratchFolder
{
  Platform()
  {
    vu::log::setLevel(vu::log::Level::Silent);
    ZB::ZBBroker::Options options;
    options.configuration = {{"root", path().string()}};
    broker = ZB::ZBBroker::create(std::move(options));
    broker->createModule<ZB::ZBPreferences>("ZBPreferences");
    preferences = broker->getProxy("ZBPreferences");
  }
  ~Platform() { broker->shutdown(); }

  std::shared_ptr<ZB::ZBBroker> broker;
  std::shared_ptr<ZB::ZBProxy> preferences;
};

} // namespace

/// A damaged file is an error; what can be read can be written back.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  static const Platform platform;
  writeInput(platform.path() / "preferences" / "Fuzz.json", data, size);
  vu::Value settings;
  try
  {
    settings = platform.preferences->call<vu::Value>("readPrefFile", std::string("Fuzz"), false);
  }
  catch (const ZB::ZBError& error)
  {
    require(!error.description().empty());
    return 0;
  }
  platform.preferences->call("writePrefFile", std::string("Fuzz"), settings, true);
  require(platform.preferences->call<vu::Value>("readPrefFile", std::string("Fuzz"), false) == settings);
  return 0;
}
