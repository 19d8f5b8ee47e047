#pragma once

#include <cstdint>

/// What a frame manager and the guard of one program say to each other, over a
/// socket that keeps messages apart (docs/reliability.md).
///
/// To the guard go milliseconds, as a std::int32_t: ask everything to end now,
/// and kill what is left after that time. The end of the socket means that the
/// frame manager has gone. From the guard come GuardReports, and its own end,
/// and the socket's with it, which means that nothing is left.
namespace ZB::FrameManager
{

/// The socket's number in the guard.
inline constexpr int guardSocket = 3;

struct GuardReport
{
  enum class Kind : std::int32_t
  {
    Started,     ///< value: the program's process, which leads its group
    CannotStart, ///< value: errno
    Ended        ///< value: the program's status, as waitpid() gives it
  };

  Kind kind = Kind::Started;
  std::int32_t value = 0;
};

} // namespace ZB::FrameManager
