#include <runtoken.hpp>

#include <chrono>
#include <utility>

#include <vu/log.hpp>

namespace ZB::FrameManager
{

namespace
{

constexpr const char* service = "Tokens";
/// For a token that is being made; the file system that it lies on may not answer.
constexpr std::chrono::seconds makingLimit(10);

void giveBack(vu::LocalSession& session, const vu::Future<vu::Value>& made)
{
  if (made.hasError())
    return;
  if (const auto tokens = session.find(service))
    if (const auto ended = tokens->call("_endRun", vu::Value::array({made.value().at("number")})); ended.hasError())
      vu::log::error("framemanager", "RunToken", "the token of a run was not taken back: " + ended.error());
}

} // namespace

RunToken::RunToken(std::shared_ptr<vu::LocalSession> session, std::string caller, std::vector<std::string> may)
    : _session(std::move(session)), _caller(std::move(caller)), _may(std::move(may))
{
}

vu::Future<std::string> RunToken::file()
{
  const std::lock_guard lock(_mutex);
  if (_file.valid())
    return _file;
  const auto tokens = _session->find(service);
  if (!tokens)
    return _file = vu::makeReadyFuture<std::string>();
  try
  {
    _made = tokens->post("_beginRun", vu::Value::array({_caller, _may}), [decided = _decided] { return !decided->exchange(true); });
  }
  catch (...)
  {
    _made = vu::makeFailedFuture<vu::Value>(std::current_exception(), tokens->pool());
  }
  const vu::Promise<std::string> file(tokens->pool());
  _made.then(
      [file, caller = _caller](const vu::Future<vu::Value>& made)
      {
        if (made.hasError())
          vu::log::warning("framemanager", "RunToken", "the programs of " + caller + " have no token: " + made.error());
        file.setValue(made.hasError() ? std::string() : made.value().at("file").get<std::string>());
      });
  return _file = file.future();
}

void RunToken::end()
{
  const auto made = [this]
  {
    const std::lock_guard lock(_mutex);
    return _made;
  }();
  if (!made.valid() || !_decided->exchange(true))
    return;
  if (made.wait(makingLimit))
    giveBack(*_session, made);
  else
    made.then([session = _session](const vu::Future<vu::Value>& late) { giveBack(*session, late); });
}

} // namespace ZB::FrameManager
