#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vu/caller.hpp>
#include <vu/log.hpp>
#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbproxy.hpp>
#include <zbframemanager.hpp>
#include <zbmemory.hpp>

namespace ZB::FrameManager
{

inline constexpr std::chrono::milliseconds patience(30000);

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
    functionName("hold", getName(), "Stays open until released");
    setReturn("released", "Completes then");
    bindMethod(this, &Robot::hold);
  }

  void note(const std::string& text)
  {
    const std::lock_guard lock(_mutex);
    _notes.push_back(text);
    _callers.push_back(vu::currentCaller());
    _changed.notify_all();
  }
  void refuse() { throw ZBError(getName(), "refuse", "the arm is stuck"); }
  vu::Future<void> hold()
  {
    const std::lock_guard lock(_mutex);
    ++_held;
    _changed.notify_all();
    return _release.future();
  }
  void release() { _release.setValue(); }

  bool waitForNotes(std::size_t count)
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, patience, [&] { return _notes.size() >= count; });
  }
  bool waitForHeld(std::size_t count)
  {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, patience, [&] { return _held >= count; });
  }
  std::vector<std::string> notes() const
  {
    const std::lock_guard lock(_mutex);
    return _notes;
  }
  std::vector<std::string> callers() const
  {
    const std::lock_guard lock(_mutex);
    return _callers;
  }

private:
  mutable std::mutex _mutex; // guards the members below
  std::condition_variable _changed;
  std::vector<std::string> _notes;
  std::vector<std::string> _callers;
  std::size_t _held = 0;
  const vu::Promise<void> _release;
};

/// A broker with memory, a Robot and the frame manager, and a package
/// directory that ends with the test.
class FrameManagerTest : public testing::Test
{
protected:
  FrameManagerTest()
  {
    std::string pattern = (std::filesystem::temp_directory_path() / "framemanager-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
      throw std::runtime_error("no directory for the test");
    directory = pattern;
    start({{"framemanager", {{"terminateGraceMs", 200}}}});
  }
  ~FrameManagerTest() override
  {
    broker->shutdown();
    std::filesystem::remove_all(directory);
  }

  void start(vu::Value configuration, const vu::ThreadPool::Limits& pool = {}, const std::string& guard = TARVIK_GUARD)
  {
    if (broker)
      broker->shutdown();
    configuration["url"] = "http://" + directory.string();
    configuration["tokenFile"] = "/nowhere/token";
    configuration["framemanager"]["guard"] = guard;
    broker = ZBBroker::create({pool, configuration});
    broker->createModule<ZBMemory>("ZBMemory");
    robot = &broker->createModule<Robot>("Robot");
    manager = &broker->createModule<ZBFrameManager>("ZBFrameManager");
    manager->behaviorFailed.connect(
        [this](const std::string& id, const std::string& step, const std::string& message) {
          report({"failed", id, step, message});
        });
    manager->behaviorStopped.connect([this](const std::string& id) { report({"stopped", id, "", ""}); });
  }

  struct Report
  {
    std::string signal;
    std::string id;
    std::string step;
    std::string message;
  };

  void report(Report news)
  {
    const std::lock_guard lock(mutex);
    reports.push_back(std::move(news));
  }
  std::vector<Report> reportsOf(const std::string& id) const
  {
    const std::lock_guard lock(mutex);
    std::vector<Report> result;
    for (const auto& each : reports)
      if (each.id == id)
        result.push_back(each);
    return result;
  }
  /// "stopped", or "failed stopped"
  std::string signalsOf(const std::string& id) const
  {
    std::string signals;
    for (const auto& each : reportsOf(id))
      signals += (signals.empty() ? "" : " ") + each.signal;
    return signals;
  }

  std::string write(const std::string& file, const std::string& text) const
  {
    std::filesystem::create_directories((directory / file).parent_path());
    std::ofstream(directory / file) << text;
    return file;
  }
  std::string create(const std::string& steps) const
  {
    return manager->createBehavior(directory.string(),
                                   write("behavior.xar", "<project format=\"1\" name=\"t\">\n" + steps + "\n</project>"), "demo/t");
  }
  std::string play(const std::string& steps) const
  {
    const auto id = create(steps);
    manager->playBehavior(id);
    return id;
  }
  /// Plays to the end; gives the failure's text, empty for a success.
  std::string run(const std::string& steps) const { return outcome(manager->waitForStopped(play(steps))); }

  static std::string outcome(const vu::Future<void>& stopped)
  {
    if (!stopped.wait(patience))
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
      {
        std::ifstream file(entry.path() / "environ");
        const std::string environment(std::istreambuf_iterator<char>(file), {});
        if (environment.find("TARVIK_URL=http://" + directory.string()) != std::string::npos)
          found.insert(std::stoi(name));
      }
    return found;
  }

  bool holds(const std::string& id) const { return manager->behaviors().count(id) != 0; }

  std::filesystem::path directory;
  std::shared_ptr<ZBBroker> broker;
  Robot* robot = nullptr;
  ZBFrameManager* manager = nullptr;
  mutable std::mutex mutex; // guards reports
  std::vector<Report> reports;
};

} // namespace ZB::FrameManager
