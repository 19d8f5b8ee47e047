#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include <testing/waiting.hpp>

namespace TestSupport
{

/// A program that a test has started, ended with it at the latest. What it
/// writes is collected as it comes.
class Process
{
public:
  /// `environment` is added to that of the test.
  explicit Process(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Whether `text` comes in time.
  bool waitForOutput(const std::string& text) { return waitFor(text, &Process::_output); }
  bool waitForError(const std::string& text) { return waitFor(text, &Process::_error); }
  /// The exit code, once all has been written; 128 + n when signal n ended it,
  /// none when it is still running after all.
  std::optional<int> waitForEnd();

  /// What it writes first, up to the end of the line; what there is of it when
  /// that does not come in time.
  std::string firstLine();

  pid_t id() const { return _pid; }
  void signal(int number);
  std::string output() const;
  std::string error() const;

private:
  bool waitFor(const std::string& text, std::string Process::*where);
  void collect(int descriptor, std::string Process::*where);

  mutable std::mutex _mutex; // guards the members up to _open
  std::condition_variable _changed;
  std::string _output;
  std::string _error;
  std::optional<int> _exitCode;
  int _open = 2; ///< pipes not at their end
  pid_t _pid = 0;
  std::vector<std::jthread> _threads;
};

} // namespace TestSupport
