#pragma once

#include <functional>
#include <string>

#include <vu/log.hpp>
#include <zb/callgate.hpp>

namespace ZB
{

/// What somebody has asked for, as the log tells it: who, from where, what, and
/// how it ended.
class LoggedRequest
{
public:
  /// A call of a service: at debug level what an observer may do, else at
  /// `level`. Long texts among the arguments are cut short, so that a token
  /// given by mistake does not get into the log whole.
  LoggedRequest(std::string category, const Caller& caller, const Call& call, vu::Role least, vu::log::Level level = vu::log::Level::Info);
  /// Anything else that changes something.
  LoggedRequest(std::string category, std::string name, std::string address, std::string what);

  void ended(const std::string& outcome) const;

  /// Whether the log takes its level.
  bool isWritten() const { return _level <= vu::log::level(); }
  const std::string& address() const { return _address; }

private:
  std::string _category;
  std::string _name;
  std::string _address; ///< empty for whoever is in this process
  std::string _what;
  vu::log::Level _level;
};

/// Asked whether one more line is written about a call from there that was
/// refused: it cost its caller nothing, and there can be any number.
using AdmitsRefusal = std::function<bool(const std::string& address)>;

/// Logs every call through a gate under `category`, see LoggedRequest.
CallObserver logCalls(std::string category, vu::log::Level level = vu::log::Level::Info, AdmitsRefusal admitsRefusal = {});

} // namespace ZB
