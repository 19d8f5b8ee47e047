#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vu/future.hpp>
#include <vu/session.hpp>
#include <vu/value.hpp>

namespace ZB::FrameManager
{

/// What lets the programs of one run in at their host: a token in a file, which
/// the service "Tokens" makes when the first of them asks for it, and takes back
/// with the run's end. Where there is no such service, programs get no token.
/// Thread-safe.
class RunToken
{
public:
  /// The token is `caller`'s, and may call what `may` asks for as a manifest does.
  RunToken(std::shared_ptr<vu::LocalSession> session, std::string caller, std::vector<std::string> may);

  /// The file; an empty text where there is none, which is logged when
  /// something has failed. Blocks nobody; completes on the broker's pool.
  vu::Future<std::string> file();

  /// The token and its file are gone when this returns. Once, when no step is
  /// left that could ask; not on a thread that must not block.
  void end();

private:
  const std::shared_ptr<vu::LocalSession> _session;
  const std::string _caller;
  const std::vector<std::string> _may;
  /// Whoever sets it first decides whether the token is made.
  const std::shared_ptr<std::atomic<bool>> _decided = std::make_shared<std::atomic<bool>>(false);
  std::mutex _mutex; // guards the members below
  vu::Future<vu::Value> _made;
  vu::Future<std::string> _file;
};

} // namespace ZB::FrameManager
