#include <vu/signal.hpp>

#include <atomic>

#include <vu/log.hpp>

namespace vu::detail
{

SignalLink nextSignalLink()
{
  static std::atomic<SignalLink> last{0};
  return ++last;
}

void logCallbackError(const char* where) noexcept
{
  try
  {
    log::error("vu", "logCallbackError", std::string(where) + " threw: " + errorText(std::current_exception()));
  }
  catch (...)
  {
    // Nothing is left to report with.
  }
}

} // namespace vu::detail
