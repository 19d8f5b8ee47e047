#include <callstep.hpp>

#include <boost/asio/post.hpp>

#include <vu/caller.hpp>
#include <vu/objectbuilder.hpp>

namespace ZB::FrameManager
{

RunningCalls::RunningCalls(std::shared_ptr<const Play> play, const std::string& title, std::vector<CallStep> calls)
    : RunningStep(std::move(play), title), _calls(std::move(calls))
{
}

std::vector<CallStep> RunningCalls::ofEvent(const EventStep& step)
{
  return {{"ZBMemory", "declareEvent", vu::Value::array({step.key})}, {"ZBMemory", "raiseEvent", vu::Value::array({step.key, step.value})}};
}

void RunningCalls::next()
{
  if (_position == _calls.size())
    return end();
  const auto& call = _calls[_position];
  const vu::Object service(std::shared_ptr<vu::ObjectBackend>(play().settings->session->find(call.service)));
  if (!service)
    return fail(call.service + "." + call.method + ": there is no service " + call.service);
  // The continuation runs on the broker's pool and may come when the step, the
  // behavior or the frame manager has gone; only the gate tells.
  const vu::CallerScope caller(play().caller);
  service.asyncValues(call.method, call.arguments)
      .then(
          [gate = play().settings->gate, weak = weak_from_this()](const vu::Future<vu::Value>& answer)
          {
            const auto pass = gate->enter();
            if (!pass)
              return;
            if (auto self = std::static_pointer_cast<RunningCalls>(weak.lock()))
              boost::asio::post(self->play().strand, [self, answer] { self->answered(answer); });
          });
}

void RunningCalls::answered(const vu::Future<vu::Value>& answer)
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
