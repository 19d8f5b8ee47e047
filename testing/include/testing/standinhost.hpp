#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vu/value.hpp>

#include <testing/waiting.hpp>

namespace TestSupport
{

/// The host's end of WebSockets, one after the other, on a free port of
/// loopback: for what a client does that a real host does not tell.
class StandInHost
{
public:
  using Result = std::function<vu::Value(const std::string& method, const vu::Value& params)>;

  /// Answers only when `together` calls have come, or no more do: a client that
  /// waits for an answer in between shows in rounds().
  explicit StandInHost(Result result, std::size_t together = 1);
  ~StandInHost();
  StandInHost(const StandInHost&) = delete;
  StandInHost& operator=(const StandInHost&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(_port); }

  /// The methods that were called without an answer between them, sorted.
  std::vector<std::vector<std::string>> rounds() const;

  /// Happens with the second ping; each is answered.
  Event& pinged() { return _pinged; }

  /// From now on takes what comes and says nothing, the connection open.
  void fallSilent() { _silent = true; }

private:
  void run();
  void serve(int connection);
  void answer(int connection, std::vector<std::string>& calls);

  const Result _result;
  const std::size_t _together;
  const int _listening;
  int _port = 0;
  Event _pinged{2};
  std::atomic<bool> _silent{false};
  mutable std::mutex _mutex; // guards the members below
  int _connection = -1;
  bool _over = false;
  std::vector<std::vector<std::string>> _rounds;
  std::thread _thread;
};

} // namespace TestSupport
