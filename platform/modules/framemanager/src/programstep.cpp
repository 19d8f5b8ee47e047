#include <programstep.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sstream>

#include <sys/socket.h>
#include <sys/wait.h>

#include <boost/asio/post.hpp>

#include <childprocess.hpp>
#include <descendants.hpp>
#include <guardprotocol.hpp>
#include <vu/log.hpp>

namespace ZB::FrameManager
{

namespace
{

/// How long a killed program may take; only a driver that hangs keeps it longer.
constexpr std::chrono::seconds killLimit(5);
/// The same when the frame manager closes.
constexpr std::chrono::seconds closingKillLimit(1);
/// What a guard has for itself before this process kills in its place.
constexpr std::chrono::milliseconds guardLimit(300);
constexpr std::chrono::milliseconds lookInterval(100);
constexpr std::chrono::milliseconds collectInterval(1);

} // namespace

PlayedProgram::PlayedProgram(std::shared_ptr<const Play> play, const std::string& title, const ProgramStep& step)
    : PlayedStep(std::move(play), title), _step(step), _control(this->play().strand), _limit(this->play().strand),
      _collecting(this->play().strand), _lookingAfter(this->play().strand)
{
}

void PlayedProgram::begin()
{
  play().token->file().then(
      [gate = play().settings->gate, weak = weak_from_this()](const vu::Future<std::string>& file)
      {
        const auto pass = gate->enter();
        if (!pass)
          return;
        if (auto self = std::static_pointer_cast<PlayedProgram>(weak.lock()))
          boost::asio::post(self->play().strand,
                            [self, file]
                            {
                              if (self->hasEnded())
                                return;
                              try
                              {
                                self->launch(file.value());
                              }
                              catch (...)
                              {
                                self->fail(vu::errorText(std::current_exception()));
                              }
                            });
      });
}

void PlayedProgram::letGo()
{
  if (_guard == 0) // it waits for the token still
    return end();
  terminate();
}

void PlayedProgram::launch(const std::string& tokenFile)
{
  const auto& settings = *play().settings;
  auto environment = settings.environment;
  if (!tokenFile.empty())
    environment.push_back("TARVIK_TOKEN_FILE=" + tokenFile);
  auto child = startProcess(settings.guard, settings.terminateGrace, _step.words, play().project->directory, environment);
  _guard = child.guard;
  try
  {
    _control.assign(child.control.get());
    child.control.release();
    _output = makeReader(std::move(child.output), false);
    _errors = makeReader(std::move(child.errors), true);
  }
  catch (...)
  {
    ::kill(_guard, SIGKILL); // which takes the program along
    ::waitpid(_guard, nullptr, 0);
    throw;
  }
  _output->start();
  _errors->start();
  waitForReport();
  if (_step.timeout)
  {
    _limit.expires_after(*_step.timeout);
    _limit.async_wait(handler(&PlayedProgram::timedOut));
  }
}

std::shared_ptr<OutputReader> PlayedProgram::makeReader(FileDescriptor pipe, bool isError)
{
  const auto level = isError ? vu::log::Level::Warning : vu::log::Level::Info;
  return std::make_shared<OutputReader>(play().strand, std::move(pipe),
                                        [level, output = play().output](const std::string& line) { output->log(level, "run", line); });
}

void PlayedProgram::waitForReport()
{
  _control.async_wait(boost::asio::posix::stream_descriptor::wait_read, handler(&PlayedProgram::reported));
}

void PlayedProgram::reported(Error error)
{
  if (!error)
    takeReports() ? waitForReport() : collectGuard();
}

bool PlayedProgram::takeReports()
{
  for (GuardReport report;;)
  {
    const auto size = ::recv(_control.native_handle(), &report, sizeof report, MSG_DONTWAIT);
    if (size != sizeof report)
      return size < 0 && (errno == EAGAIN || errno == EINTR);
    if (report.kind == GuardReport::Kind::Started)
      _program = report.value;
    else
    {
      (report.kind == GuardReport::Kind::Ended ? _status : _startError) = report.value;
      _limit.cancel();
      expectEnd(play().settings->terminateGrace); // of what it leaves behind
    }
  }
}

void PlayedProgram::collectGuard(Error error)
{
  if (error)
    return;
  // Its files go a moment before it does.
  if (::waitpid(_guard, nullptr, WNOHANG) == 0)
  {
    _collecting.expires_after(collectInterval);
    return _collecting.async_wait(handler(&PlayedProgram::collectGuard));
  }
  _control.close();
  if (hasEnded())
    return;
  if (!_status && !_startError && _program != 0) // somebody has killed the guard
    ::kill(-_program, SIGKILL);
  conclude();
}

void PlayedProgram::timedOut(Error error)
{
  if (error || _status || _startError || _terminating)
    return;
  _timedOut = true;
  terminate();
}

void PlayedProgram::terminate()
{
  _terminating = true;
  const auto grace = play().settings->terminateGrace;
  const auto message = static_cast<std::int32_t>(grace.count());
  ::send(_control.native_handle(), &message, sizeof message, MSG_NOSIGNAL | MSG_DONTWAIT);
  expectEnd(grace);
}

void PlayedProgram::expectEnd(std::chrono::milliseconds grace)
{
  _killAt = std::min(_killAt, Clock::now() + grace);
  lookAfterGuard({});
}

void PlayedProgram::lookAfterGuard(Error error)
{
  if (error || hasEnded())
    return;
  const auto late = Clock::now() - _killAt;
  if (late >= (*play().settings->closing ? closingKillLimit : killLimit))
    return giveUp();
  const bool halted = late >= guardLimit && isHalted(_guard);
  ::kill(_guard, SIGCONT);
  if (halted) // one that is only slow does not need more to do on the machine
    signalDescendants(_guard, SIGKILL);
  _lookingAfter.expires_after(lookInterval);
  _lookingAfter.async_wait(handler(&PlayedProgram::lookAfterGuard));
}

/// A guard that has somebody left to kill goes on trying, and is collected
/// when it ends.
void PlayedProgram::giveUp()
{
  std::string processes;
  for (const auto& process : descendantsOf(_guard))
    processes += (processes.empty() ? "" : ", ") + std::to_string(process.pid);
  if (processes.empty())
    ::kill(_guard, SIGKILL);
  else
  {
    _leftAlone = _step.words.front() + " cannot be ended and is left alone (processes " + processes + ")";
    vu::log::error("framemanager", "run", play().name + ": " + _leftAlone);
  }
  conclude();
}

void PlayedProgram::conclude()
{
  _limit.cancel();
  _lookingAfter.cancel();
  _output->finish();
  _errors->finish();
  auto& left = *play().leftAlone;
  left += (left.empty() || _leftAlone.empty() ? "" : "; ") + _leftAlone;
  const auto text = isStopping() ? std::string() : message();
  if (text.empty())
    end();
  else
    fail(text);
}

std::string PlayedProgram::message() const
{
  const auto told = failure();
  return told + (told.empty() || _leftAlone.empty() ? "" : "; ") + _leftAlone;
}

std::string PlayedProgram::failure() const
{
  const auto& program = _step.words.front();
  if (_startError)
    return cannotStart(program, *_startError, play().project->directory);
  std::ostringstream text;
  text << program;
  if (_timedOut)
    text << " did not end within " << std::chrono::duration<double>(*_step.timeout).count() << " s and was stopped";
  else if (!_status)
    text << ": its exit status is lost";
  else if (WIFSIGNALED(*_status))
    text << " was ended by signal " << WTERMSIG(*_status) << " (" << ::strsignal(WTERMSIG(*_status)) << ")";
  else if (WEXITSTATUS(*_status) != 0)
    text << " ended with exit status " << WEXITSTATUS(*_status) << "; its output stands in the log";
  else
    return {};
  return text.str();
}

} // namespace ZB::FrameManager
