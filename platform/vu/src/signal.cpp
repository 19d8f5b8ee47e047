#include <vu/signal.hpp>

#include <atomic>

namespace vu::detail
{

SignalLink nextSignalLink()
{
  static std::atomic<SignalLink> last{0};
  return ++last;
}

} // namespace vu::detail
