#include <runstep.hpp>

#include <csignal>
#include <cstring>
#include <sstream>

#include <sys/wait.h>

#include <childprocess.hpp>
#include <processgroup.hpp>
#include <vu/log.hpp>

namespace ZB::FrameManager
{

namespace
{

constexpr std::chrono::milliseconds checkInterval(10);
/// How long a killed group may take; only a driver that hangs keeps it longer.
constexpr std::chrono::seconds killLimit(5);

} // namespace

RunningProcess::RunningProcess(std::shared_ptr<const Play> play, const std::string& title, const RunStep& step)
    : RunningStep(std::move(play), title), _step(step), _ended(this->play().strand), _limit(this->play().strand),
      _grace(this->play().strand), _check(this->play().strand)
{
}

void RunningProcess::begin()
{
  auto child = startProcess(_step.words, play().project->directory, play().settings->environment);
  _group = child.pid;
  try
  {
    _ended.assign(child.ended.get());
    child.ended.release();
    _output = makeReader(std::move(child.output), false);
    _errors = makeReader(std::move(child.errors), true);
  }
  catch (...)
  {
    signalGroup(_group, SIGKILL);
    ::waitpid(_group, nullptr, 0);
    throw;
  }
  _output->start();
  _errors->start();
  waitForProgram();
  if (_step.timeout)
  {
    _limit.expires_after(*_step.timeout);
    _limit.async_wait(handler(&RunningProcess::timedOut));
  }
}

std::shared_ptr<OutputReader> RunningProcess::makeReader(FileDescriptor pipe, bool isError)
{
  const auto level = isError ? vu::log::Level::Warning : vu::log::Level::Info;
  return std::make_shared<OutputReader>(play().strand, std::move(pipe),
                                        [level, name = play().name](const std::string& line)
                                        { vu::log::write(level, "framemanager", "run", name + ": " + line); });
}

void RunningProcess::waitForProgram()
{
  _ended.async_wait(boost::asio::posix::stream_descriptor::wait_read, handler(&RunningProcess::programEnded));
}

void RunningProcess::programEnded(Error error)
{
  if (error || hasEnded())
    return;
  // Readiness is a hint: a descriptor that takes a closed one's place may be
  // woken by the news of that one.
  const auto collected = ::waitpid(_group, &_status, WNOHANG);
  if (collected == 0)
    return waitForProgram();
  _programEnded = true;
  _statusKnown = collected == _group;
  _limit.cancel();
  if (groupLives(_group))
  {
    terminate();
    checkGroup({});
  }
  else
    conclude();
}

void RunningProcess::timedOut(Error error)
{
  if (error || _programEnded || _terminating)
    return;
  _timedOut = true;
  terminate();
}

void RunningProcess::terminate()
{
  if (std::exchange(_terminating, true))
    return;
  signalGroup(_group, SIGTERM);
  signalGroup(_group, SIGCONT); // a halted process would not get it
  _grace.expires_after(play().settings->terminateGrace);
  _grace.async_wait(handler(&RunningProcess::graceOver));
}

void RunningProcess::graceOver(Error error)
{
  if (error || hasEnded())
    return;
  signalGroup(_group, SIGKILL);
  _grace.expires_after(killLimit);
  _grace.async_wait(handler(&RunningProcess::killOver));
}

void RunningProcess::killOver(Error error)
{
  if (error || hasEnded())
    return;
  vu::log::error("framemanager", "run",
                 play().name + ": the process group " + std::to_string(_group) + " of " + _step.words.front() +
                     " cannot be killed; it is left alone");
  conclude();
}

void RunningProcess::checkGroup(Error error)
{
  if (error || hasEnded())
    return;
  if (!groupLives(_group))
    return conclude();
  _check.expires_after(checkInterval);
  _check.async_wait(handler(&RunningProcess::checkGroup));
}

void RunningProcess::conclude()
{
  _limit.cancel();
  _grace.cancel();
  _check.cancel();
  _ended.close();
  _output->finish();
  _errors->finish();
  const auto text = isStopping() ? std::string() : message();
  if (text.empty())
    end();
  else
    fail(text);
}

std::string RunningProcess::message() const
{
  const auto& program = _step.words.front();
  std::ostringstream text;
  text << program;
  if (_timedOut)
    text << " did not end within " << std::chrono::duration<double>(*_step.timeout).count() << " s and was stopped";
  else if (!_statusKnown)
    text << ": its exit status is lost";
  else if (WIFSIGNALED(_status))
    text << " was ended by signal " << WTERMSIG(_status) << " (" << ::strsignal(WTERMSIG(_status)) << ")";
  else if (WEXITSTATUS(_status) != 0)
    text << " ended with exit status " << WEXITSTATUS(_status) << "; its output stands in the log";
  else
    return {};
  return text.str();
}

} // namespace ZB::FrameManager
