#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <vu/value.hpp>

#include <testing/waiting.hpp>

namespace TestSupport
{

/// The host's end of WebSockets, one after the other, on a free port of
/// loopback: for what a client does that a real host does not tell.
class StandInHost
{
public:
  using Result = std::function<vu::Value(const std::string& method, const vu::Value& params)>;

  /// Answers only when `together` calls have come: a client that waits for an
  /// answer in between gets none.
  explicit StandInHost(Result result, std::size_t together = 1);
  ~StandInHost();
  StandInHost(const StandInHost&) = delete;
  StandInHost& operator=(const StandInHost&) = delete;

  std::string url() const;

  /// The methods that were called without an answer between them, sorted.
  std::vector<std::vector<std::string>> rounds() const;

  /// Of the signal behind link 1; for the result's function, whose answer it precedes.
  void emit(const vu::Value& arguments);

  /// Happens with the second ping; each is answered.
  Event& pinged();

  /// After the next call, which gets no answer, reads nothing any more, the connection open.
  void fallSilent();

private:
  struct Implementation;
  std::unique_ptr<Implementation> _implementation;
};

} // namespace TestSupport
