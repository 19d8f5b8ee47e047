#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>

#include <outputbudget.hpp>
#include <packages/project.hpp>
#include <playsettings.hpp>
#include <runtoken.hpp>

namespace ZB::FrameManager
{

using packages::CallStep;
using packages::EventStep;
using packages::FailStep;
using packages::LogStep;
using packages::ParallelStep;
using packages::ProgramStep;
using packages::Project;
using packages::ProjectStep;
using packages::SequenceStep;
using packages::WaitStep;

struct Failure
{
  std::string step;    ///< its title
  std::string message; ///< for people, not empty
};

/// None where everything went well, or was stopped.
using Outcome = std::optional<Failure>;

using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;

/// What the steps of one playing behavior share.
struct Play
{
  std::shared_ptr<const PlaySettings> settings;
  std::shared_ptr<const Project> project;
  std::string name;
  Caller caller; ///< its programs' token is this caller's, too
  std::shared_ptr<RunToken> token;
  Strand strand;
  std::shared_ptr<OutputBudget> output;
  /// Why something of it lives on; empty where nothing does. Told even where
  /// the behavior was stopped, when failures are not.
  std::shared_ptr<std::string> leftAlone = std::make_shared<std::string>();
};

/// A step of a project while it is played.
///
/// Everything runs on the behavior's strand, and nothing blocks there: a step
/// that waits has asked to be continued. It ends exactly once, by itself, with
/// a failure, or because it was stopped; its end is posted, so that steps
/// without any duration neither nest calls nor keep a stop from its turn.
class PlayedStep : public std::enable_shared_from_this<PlayedStep>
{
public:
  using Ended = std::function<void(const Outcome&)>;

  virtual ~PlayedStep() = default;
  PlayedStep(const PlayedStep&) = delete;
  PlayedStep& operator=(const PlayedStep&) = delete;

  /// Once. Whoever starts it outlives it.
  void start(Ended ended);

  /// Lets go of what it waits for; it ends without a failure as soon as
  /// nothing of it is left. Does nothing when it is ending already.
  void stop();

protected:
  /// `title` belongs to the project.
  PlayedStep(std::shared_ptr<const Play> play, const std::string& title) : _play(std::move(play)), _title(title) {}

  virtual void begin() = 0;
  /// Asked for once, and only before the end.
  virtual void letGo() = 0;

  void end(const Outcome& outcome = {});
  void fail(const std::string& message);

  const Play& play() const { return *_play; }
  const std::shared_ptr<const Play>& sharedPlay() const { return _play; }
  bool isStopping() const { return _stopping; }
  bool hasEnded() const { return _hasEnded; }

  /// A handler for the strand that keeps the step alive.
  template <typename Derived, typename... Arguments> auto handler(void (Derived::*member)(Arguments...))
  {
    return [self = std::static_pointer_cast<Derived>(shared_from_this()), member](Arguments... arguments)
    { (self.get()->*member)(arguments...); };
  }

private:
  const std::shared_ptr<const Play> _play;
  const std::string& _title;
  Ended _ended;
  bool _stopping = false;
  bool _hasEnded = false;
};

std::shared_ptr<PlayedStep> makePlayedStep(const ProjectStep& step, const std::shared_ptr<const Play>& play);

} // namespace ZB::FrameManager
