#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <testing/journal.hpp>
#include <testing/waiting.hpp>
#include <vu/caller.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbproxy.hpp>
#include <zbframemanager.hpp>
#include <zbmemory.hpp>

namespace ZB::FrameManager
{

using TestSupport::errorOf;
using TestSupport::eventually;

/// What a behavior of a test calls: keeps a record, fails on demand, and hands
/// out futures that stay open until the test completes them.
class Robot final : public ZBModule
{
public:
  Robot(std::shared_ptr<ZBBroker> broker, const std::string& name) : ZBModule(std::move(broker), name)
  {
    functionName("note", getName(), "Keeps a text");
    addParam("text", "Text");
    bindMethod(this, &Robot::note);
    functionName("refuse", getName(), "Fails");
    bindMethod(this, &Robot::refuse);
    functionName("reset", getName(), "Is nothing for everybody");
    setAccess(vu::Role::Admin);
    bindMethod(this, &Robot::reset);
    functionName("hold", getName(), "Stays open until released");
    setReturn("released", "Completes then");
    bindMethod(this, &Robot::hold);
  }

  void note(const std::string& text)
  {
    callers.add(vu::currentCaller());
    notes.add(text);
  }
  void refuse() { throw ZBError(getName(), "refuse", "the arm is stuck"); }
  void reset() {}
  vu::Future<void> hold()
  {
    held.add("");
    return _release.future();
  }
  void release() { _release.setValue(); }

  TestSupport::Journal notes;
  TestSupport::Journal callers;
  TestSupport::Journal held;

private:
  const vu::Promise<void> _release;
};

inline std::string note(const std::string& text) { return "<call service=\"Robot\" method=\"note\" arguments='[\"" + text + "\"]'/>"; }
inline const std::string hold = "<call service=\"Robot\" method=\"hold\"/>";

/// A broker with memory, a Robot and the frame manager, and a package
/// directory that ends with the test.
class FrameManagerTest : public testing::Test
{
protected:
  FrameManagerTest() { start({{"framemanager", {{"terminateGraceMs", 200}}}}); }
  ~FrameManagerTest() override { broker->shutdown(); }

  void start(vu::Value configuration, const vu::ThreadPool::Limits& pool = {}, const std::string& guard = TARVIK_GUARD)
  {
    if (broker)
      broker->shutdown();
    configuration["url"] = "http://" + directory.string();
    configuration["framemanager"]["guard"] = guard;
    broker = ZBBroker::create({pool, configuration});
    broker->createModule<ZBMemory>("ZBMemory");
    robot = &broker->createModule<Robot>("Robot");
    manager = &broker->createModule<ZBFrameManager>("ZBFrameManager");
    manager->behaviorFailed.connect([this](const std::string& id, const std::string& step, const std::string& message)
                                    { signals.add(id + " failed " + step + ": " + message); });
    manager->behaviorStopped.connect([this](const std::string& id) { signals.add(id + " stopped"); });
  }

  /// "stopped", or "failed STEP: MESSAGE, stopped"
  std::string signalsOf(const std::string& id) const
  {
    std::string all;
    for (const auto& each : signals.lines(id + " "))
      all += (all.empty() ? "" : ", ") + each;
    return all;
  }

  std::string write(const std::string& file, const std::string& text) const
  {
    TestSupport::writeFile(directory / file, text);
    return file;
  }
  std::string create(const std::string& steps, const std::string& file = "behavior.xar") const
  {
    return manager->createBehavior(directory.string(), write(file, TestSupport::project(steps)), "demo/t");
  }
  std::string play(const std::string& steps, const std::string& file = "behavior.xar") const
  {
    const auto id = create(steps, file);
    manager->playBehavior(id);
    return id;
  }
  /// Plays to the end; gives the failure's text, empty for a success.
  std::string run(const std::string& steps) const { return outcome(manager->waitForStopped(play(steps))); }

  static std::string outcome(const vu::Future<void>& stopped)
  {
    if (!stopped.wait(TestSupport::patience))
      return "did not end";
    return stopped.error();
  }

  /// Processes, guards among them, that have come of this test's behaviors:
  /// all of them inherit the address of the host.
  std::set<pid_t> processes() const
  {
    std::set<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
      if (const auto name = entry.path().filename().string(); name.find_first_not_of("0123456789") == std::string::npos)
        if (TestSupport::readFile(entry.path() / "environ").find("TARVIK_URL=http://" + directory.string()) != std::string::npos)
          found.insert(std::stoi(name));
    return found;
  }

  bool holds(const std::string& id) const { return manager->behaviors().count(id) != 0; }

  const TestSupport::TemporaryDirectory directory;
  std::shared_ptr<ZBBroker> broker;
  Robot* robot = nullptr;
  ZBFrameManager* manager = nullptr;
  TestSupport::Journal signals;
};

} // namespace ZB::FrameManager
