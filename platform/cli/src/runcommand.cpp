#include <algorithm>
#include <iomanip>
#include <set>
#include <sstream>

#include <cli/text.hpp>

#include "behaviors.hpp"
#include "interrupt.hpp"
#include "mailbox.hpp"

namespace Tarvik
{

namespace
{

struct News
{
  enum class Kind
  {
    Progress,    ///< text: the behavior's new state
    Ended,       ///< text: empty, or why it failed
    Interrupted, ///< by the person
    Disconnected ///< text: the reason
  };
  Kind kind;
  std::string name;
  std::string text;
};
using NewsBox = std::shared_ptr<Mailbox<News>>;

void put(const NewsBox& mailbox, News::Kind kind, const std::string& name = {}, const std::string& text = {})
{
  mailbox->put(News{kind, name, text});
}

/// Runs behaviors to their end. All their news come to the main thread through
/// one mailbox; a behavior has ended when the answer to its "runBehavior" is
/// there, whatever signals say.
class Run
{
public:
  Run(Context& context, const std::vector<std::string>& names)
      : _context(context), _interrupt([mailbox = _mailbox] { put(mailbox, News::Kind::Interrupted); })
  {
    _session = _context.connect();
    _session->setClosedCallback([mailbox = _mailbox](const std::string& reason)
                                { put(mailbox, News::Kind::Disconnected, {}, "the connection to the host has ended: " + reason); });
    _behaviors.emplace(*_session);
    const auto resolved = _behaviors->resolve(names);
    _open.insert(resolved.begin(), resolved.end());
  }

  void toEnd()
  {
    // Before the calls, whose signals would be missed otherwise.
    const auto loaded = follow("behaviorLoaded", "loaded");
    const auto started = follow("behaviorStarted", "started");
    loaded.value();
    started.value();
    for (const auto& name : _open)
      begin(name);
    while (!_open.empty())
      handle(*_mailbox->take());
    if (!_failures.empty())
      throw CommandError(joinedFailures());
    if (_interrupted)
      throw CommandError("interrupted: stopped before the end");
  }

private:
  void begin(const std::string& name)
  {
    const auto& object = _behaviors->object();
    const auto tell = [mailbox = _mailbox, name](const vu::Future<void>& future) { putOutcome(mailbox, name, future); };
    // The signals that came before the answer may still stand in the line.
    const auto answered = [object, tell](const vu::Future<void>& future)
    { object.delivered().then([tell, future](const auto&) { tell(future); }); };
    object.async<void>("runBehavior", name).then(answered);
  }

  static void putOutcome(const NewsBox& mailbox, const std::string& name, const vu::Future<void>& future)
  {
    try
    {
      future.value();
      put(mailbox, News::Kind::Ended, name);
    }
    catch (const vu::ServiceError& error)
    {
      // That the connection ended says nothing about the behavior.
      const auto lost = error.kind() == vu::ServiceError::Kind::ConnectionLost;
      put(mailbox, lost ? News::Kind::Disconnected : News::Kind::Ended, name, reason(error));
    }
    catch (const std::exception& error)
    {
      put(mailbox, News::Kind::Ended, name, reason(error));
    }
  }

  /// Never empty, which would mean success.
  static std::string reason(const std::exception& error)
  {
    const std::string text = error.what();
    return text.empty() ? "it failed without a reason" : text;
  }

  vu::Future<vu::SignalLink> follow(const std::string& signal, const std::string& state)
  {
    const auto tell = [mailbox = _mailbox, state](const std::string& name) { put(mailbox, News::Kind::Progress, name, state); };
    return _behaviors->object().connect<std::string>(signal, tell);
  }

  void handle(const News& news)
  {
    switch (news.kind)
    {
    case News::Kind::Progress:
      if (_open.contains(news.name))
        show(news.name, news.text);
      break;
    case News::Kind::Ended:
      _open.erase(news.name);
      if (news.text.empty())
        show(news.name, _interrupted ? "stopped" : "ended");
      else
      {
        show(news.name, "failed", news.text);
        _failures.emplace_back(news.name, news.text);
      }
      break;
    case News::Kind::Interrupted:
      interrupted();
      break;
    case News::Kind::Disconnected:
      throw CommandError(news.text + "; the behaviors may still be running, see \"tarvik list\"", ExitCode::NoHost);
    }
  }

  /// A second time does not wait any more.
  void interrupted()
  {
    if (_interrupted)
      throw CommandError("interrupted again before the behaviors had stopped; \"tarvik list\" shows whether they have");
    _interrupted = true;
    for (const auto& name : _open)
      _behaviors->object().async<void>("stopBehavior", name);
  }

  void show(const std::string& name, const std::string& state, const std::string& reason = {})
  {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - _begin;
    if (_context.json)
    {
      vu::Value value{{"name", name}, {"state", state}, {"seconds", elapsed.count()}};
      if (!reason.empty())
        value["reason"] = reason;
      return _context.print(value);
    }
    _context.out << std::fixed << std::setprecision(2) << std::setw(8) << elapsed.count() << " s  " << name << " " << state << std::endl;
  }

  std::string joinedFailures() const
  {
    std::vector<std::string> texts;
    for (const auto& [name, reason] : _failures)
      texts.push_back("\"" + name + "\" failed: " + reason);
    return joined(texts);
  }

  Context& _context;
  const NewsBox _mailbox = std::make_shared<Mailbox<News>>();
  // Before the session, whose threads inherit that the signals are blocked.
  Interrupt _interrupt;
  const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
  std::unique_ptr<vu::RemoteSession> _session;
  std::optional<Behaviors> _behaviors;
  std::set<std::string> _open;
  std::vector<std::pair<std::string, std::string>> _failures;
  bool _interrupted = false;
};

} // namespace

void addRunCommand(Commands& commands)
{
  const auto names = std::make_shared<std::vector<std::string>>();
  commands
      .add("run", "Runs behaviors, all at once, and waits for their end; Ctrl-C stops them",
           [names](Context& context) { Run(context, *names).toEnd(); })
      ->add_option("NAME", *names, "Behaviors")
      ->required();
}

} // namespace Tarvik
