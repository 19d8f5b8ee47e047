#pragma once

#include <memory>
#include <string>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <sys/types.h>

#include <outputreader.hpp>
#include <runningstep.hpp>

namespace ZB::FrameManager
{

/// A program and the process group it leads.
///
/// It ends when the whole group has gone: on a stop and on a time-out the
/// group gets SIGTERM and, after the grace, SIGKILL; so does what the program
/// leaves behind in it when it ends by itself.
class RunningProcess final : public RunningStep
{
public:
  RunningProcess(std::shared_ptr<const Play> play, const std::string& title, const RunStep& step);

private:
  using Error = const boost::system::error_code&;

  void begin() override;
  void letGo() override { terminate(); }
  std::shared_ptr<OutputReader> makeReader(FileDescriptor pipe, bool isError);

  void waitForProgram();
  void programEnded(Error error);
  void timedOut(Error error);
  void terminate();
  void graceOver(Error error);
  void killOver(Error error);
  void checkGroup(Error error);
  void conclude();
  /// Why it failed; empty where it did not.
  std::string message() const;

  const RunStep& _step;
  boost::asio::posix::stream_descriptor _ended;
  boost::asio::steady_timer _limit;
  boost::asio::steady_timer _grace;
  boost::asio::steady_timer _check;
  std::shared_ptr<OutputReader> _output;
  std::shared_ptr<OutputReader> _errors;
  pid_t _group = 0;
  int _status = 0;
  bool _statusKnown = false;
  bool _programEnded = false;
  bool _timedOut = false;
  bool _terminating = false;
};

} // namespace ZB::FrameManager
