#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace Tarvik
{

/// Keeps refused requests from filling the log: of each address some lines a
/// second are written, and then one that tells how many were left out.
/// Thread-safe.
class RefusalLog
{
public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t linesPerSecond = 10;
  static constexpr std::size_t addresses = 1000; ///< beyond them all others are taken for one

  /// Whether one more line about `address` is to be written.
  bool admits(std::string address, Clock::time_point now = Clock::now());
  /// Writes what was left out in the seconds that are over; to be called once
  /// a second.
  void tell(Clock::time_point now = Clock::now());

private:
  struct Second
  {
    Clock::time_point begin;
    std::size_t lines = 0;
  };

  std::mutex _mutex;                      // guards the member below
  std::map<std::string, Second> _seconds; ///< by address
};

} // namespace Tarvik
