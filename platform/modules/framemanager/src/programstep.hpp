#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <sys/types.h>

#include <outputreader.hpp>
#include <playedstep.hpp>

namespace ZB::FrameManager
{

/// A program under its guard, which ends it with all that has come of it: on a
/// stop, on a time-out, and when the program ends by itself.
///
/// The step ends with the guard, and so when nothing of the program is left.
/// From the moment when the guard has to end everything, it is looked after: a
/// program can halt it. What it has not ended a while after the grace is killed
/// from here, and what nobody can kill is given up in the end, and told.
class PlayedProgram final : public PlayedStep
{
public:
  PlayedProgram(std::shared_ptr<const Play> play, const std::string& title, const ProgramStep& step);

private:
  using Error = const boost::system::error_code&;

  void begin() override;
  void letGo() override;
  /// With the run's token, empty where there is none.
  void launch(const std::string& tokenFile);
  std::shared_ptr<OutputReader> makeReader(FileDescriptor pipe, bool isError);

  void waitForReport();
  void reported(Error error);
  /// False at the end of the socket.
  bool takeReports();
  /// The guard has gone, or is about to.
  void collectGuard(Error error = {});
  void timedOut(Error error);
  void terminate();
  /// Everything is to have gone within that time.
  void expectEnd(std::chrono::milliseconds grace);
  void lookAfterGuard(Error error);
  void giveUp();
  void conclude();
  /// Why it failed; empty where it did not.
  std::string failure() const;
  /// The same with what was left alone.
  std::string message() const;

  const ProgramStep& _step;
  using Clock = std::chrono::steady_clock;

  boost::asio::posix::stream_descriptor _control;
  boost::asio::steady_timer _limit;
  boost::asio::steady_timer _collecting;
  boost::asio::steady_timer _lookingAfter;
  std::shared_ptr<OutputReader> _output;
  std::shared_ptr<OutputReader> _errors;
  pid_t _guard = 0;
  pid_t _program = 0;
  std::optional<int> _startError;
  std::optional<int> _status;
  bool _timedOut = false;
  bool _terminating = false;
  Clock::time_point _killAt = Clock::time_point::max(); ///< when the guard begins to kill
  std::string _leftAlone;
};

} // namespace ZB::FrameManager
