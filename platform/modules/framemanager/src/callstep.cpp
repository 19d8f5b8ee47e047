#include <callstep.hpp>

#include <boost/asio/post.hpp>

#include <vu/error.hpp>

namespace ZB::FrameManager
{

PlayedCalls::PlayedCalls(std::shared_ptr<const Play> play, const std::string& title, const CallStep& step)
    : PlayedStep(std::move(play), title), _gate(*this->play().settings->calls), _calls{step}
{
}

PlayedCalls::PlayedCalls(std::shared_ptr<const Play> play, const std::string& title, const EventStep& step)
    : PlayedStep(std::move(play), title),
      _gate(*this->play().settings->eventCalls), _calls{{"ZBMemory", "declareEvent", vu::Value::array({step.key})},
                                                        {"ZBMemory", "raiseEvent", vu::Value::array({step.key, step.value})}}
{
}

void PlayedCalls::letGo()
{
  if (_decided)
    _decided->exchange(true);
  end();
}

void PlayedCalls::next()
{
  if (_position == _calls.size())
    return end();
  const auto& call = _calls[_position];
  _decided = std::make_shared<std::atomic<bool>>(false);
  vu::Future<vu::Value> answer;
  try
  {
    answer =
        _gate.post({call.service, call.method, call.arguments}, play().caller, [decided = _decided] { return !decided->exchange(true); });
  }
  catch (const vu::ServiceError& refusal)
  {
    const bool notAllowed = refusal.kind() == vu::ServiceError::Kind::NotAllowed; // which names the call itself
    return fail((notAllowed ? "" : call.service + "." + call.method + ": ") + refusal.description());
  }
  // The continuation runs on the broker's pool and may come when the step, the
  // behavior or the frame manager has gone; only the gate tells.
  answer.then(
      [gate = play().settings->gate, weak = weak_from_this()](const vu::Future<vu::Value>& answered)
      {
        const auto pass = gate->enter();
        if (!pass)
          return;
        if (auto self = std::static_pointer_cast<PlayedCalls>(weak.lock()))
          boost::asio::post(self->play().strand, [self, answered] { self->answered(answered); });
      });
}

void PlayedCalls::answered(const vu::Future<vu::Value>& answer)
{
  if (hasEnded())
    return;
  if (answer.hasError())
  {
    const auto& call = _calls[_position];
    return fail(call.service + "." + call.method + ": " + answer.error());
  }
  ++_position;
  next();
}

} // namespace ZB::FrameManager
