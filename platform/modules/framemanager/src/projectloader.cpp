#include <projectloader.hpp>

#include <condition_variable>
#include <exception>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <packages/manifest.hpp>
#include <packages/projectreader.hpp>
#include <vu/threadpool.hpp>

namespace ZB::FrameManager
{

struct ProjectLoader::State
{
  std::mutex mutex; // guards the members below, and those of every Job
  std::condition_variable changed;
  std::size_t reading = 0;
  bool closed = false;
};

namespace
{

struct Job
{
  std::shared_ptr<const LoadedBehavior> behavior;
  std::exception_ptr error;
};

LoadedBehavior readBehavior(const std::string& packageDirectory, const std::string& projectFile)
{
  auto project = packages::readProject(packageDirectory, projectFile);
  return {std::move(project), packages::readRights(packageDirectory)};
}

} // namespace

ProjectLoader::ProjectLoader(std::chrono::milliseconds limit, Read read)
    : _limit(limit), _read(read ? std::move(read) : readBehavior), _state(std::make_shared<State>())
{
}

std::shared_ptr<const LoadedBehavior> ProjectLoader::load(const std::string& packageDirectory, const std::string& projectFile)
{
  const auto deadline = std::chrono::steady_clock::now() + _limit;
  std::unique_lock lock(_state->mutex);
  const auto await = [&](const auto& happened)
  {
    const bool inTime = _state->changed.wait_until(lock, deadline, [&] { return _state->closed || happened(); });
    if (_state->closed)
      throw std::runtime_error("the project file \"" + projectFile + "\" is not read any more: the host is shutting down");
    if (inTime)
      return;
    std::ostringstream text;
    text << "the project file \"" << projectFile << "\" in " << packageDirectory << " has not been read within "
         << std::chrono::duration<double>(_limit).count() << " s; see whether the file system it lies on answers";
    throw std::runtime_error(text.str());
  };

  await([this] { return _state->reading < readers; });
  ++_state->reading;
  lock.unlock();
  const auto job = std::make_shared<Job>();
  // Not the broker's pool, which waits for its tasks when it closes.
  vu::ThreadPool::process()->post(
      [state = _state, job, read = _read, packageDirectory, projectFile]
      {
        Job done;
        try
        {
          done.behavior = std::make_shared<const LoadedBehavior>(read(packageDirectory, projectFile));
        }
        catch (...)
        {
          done.error = std::current_exception();
        }
        const std::lock_guard finished(state->mutex);
        *job = std::move(done);
        --state->reading;
        state->changed.notify_all();
      });
  lock.lock();
  await([&job] { return job->behavior || job->error; });
  // The reader may hold the job a little longer, but nothing of what it read.
  if (const auto error = std::exchange(job->error, nullptr))
    std::rethrow_exception(error);
  return std::exchange(job->behavior, nullptr);
}

void ProjectLoader::close()
{
  const std::lock_guard lock(_state->mutex);
  _state->closed = true;
  _state->changed.notify_all();
}

} // namespace ZB::FrameManager
