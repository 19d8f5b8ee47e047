#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/host.hpp>
#include <testing/errors.hpp>
#include <testing/files.hpp>
#include <testing/process.hpp>
#include <testing/waiting.hpp>
#include <vu/remotesession.hpp>

namespace HostTest
{

using TestSupport::errorOf;
using TestSupport::eventually;
using TestSupport::Process;
using TestSupport::readFile;
using TestSupport::writeFile;

/// A root of the test's own, for hosts in this process or in others.
class RootFixture : public testing::Test
{
protected:
  RootFixture()
  {
    options.root = root;
    options.listen = "127.0.0.1:0";
    options.moduleDirectory = TARVIK_MODULES;
  }

  /// The one line of a file.
  std::string line(const std::string& name) const
  {
    const auto text = readFile(root / name);
    return text.substr(0, text.find('\n'));
  }
  bool exists(const std::string& name) const { return std::filesystem::exists(root / name); }
  auto mode(const std::string& name) const { return static_cast<unsigned>(std::filesystem::status(root / name).permissions()); }

  /// Of a daemon on this root.
  std::vector<std::string> arguments(const std::vector<std::string>& more = {}) const
  {
    std::vector<std::string> all{TARVIKD, "--root", root.string(), "--listen", "127.0.0.1:0", "--log-level", "error"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  /// With the running host, as its admin or with another token.
  std::unique_ptr<vu::RemoteSession> connect(const std::string& token = {}) const
  {
    return std::make_unique<vu::RemoteSession>(
        vu::RemoteSession::Options{line("run/endpoint"), token.empty() ? line("run/token") : token, TestSupport::patience, {}});
  }
  /// Starts a behavior of these steps and waits until the history has told
  /// `signal` of it; gives the run.
  vu::Value play(const std::string& steps, const std::string& signal) const
  {
    writeFile(root / "behavior.xar", TestSupport::project(steps));
    const auto session = connect();
    const vu::Promise<vu::Value> told;
    session->service("RunHistory").value().connect<vu::Value>(signal, [told](const vu::Value& run) { told.setValue(run); }).value();
    const auto frames = session->service("ZBFrameManager").value();
    frames.call<void>("playBehavior",
                      frames.call<std::string>("createBehavior", root.string(), std::string("behavior.xar"), std::string("b")));
    return told.future().wait(TestSupport::patience) ? told.future().value() : vu::Value();
  }

  const TestSupport::TemporaryDirectory root;
  Tarvik::Host::Options options;
};

} // namespace HostTest
