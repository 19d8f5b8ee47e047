#include <testing/waiting.hpp>

#include <thread>

namespace TestSupport
{

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition())
  {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

} // namespace TestSupport
