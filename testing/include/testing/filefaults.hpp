#pragma once

#include <functional>
#include <string>
#include <vector>

/// What a crash, a disk that fails and a disk that fills up do to a program,
/// at an exact point of its way. The functions of the C library that change
/// files are replaced in the test program that this is linked into, and their
/// calls counted, in all threads, beginning at 1; standard streams are left alone.
namespace TestSupport
{

enum class Fault
{
  KillBefore, ///< the process, before the operation
  KillAfter,
  Error,    ///< the operation fails with EIO; the later ones work
  DiskFull, ///< this operation and all later ones that need space fail with ENOSPC
};

/// One at a time.
class Injection
{
public:
  Injection(Fault fault, int operation);
  ~Injection();
  Injection(const Injection&) = delete;
  Injection& operator=(const Injection&) = delete;

  /// Whether there were so many operations.
  bool happened() const;
};

/// What came of an action with a fault.
struct Attempt
{
  bool happened;       ///< whether there were so many operations
  std::string failure; ///< what the action threw, if anything
};

/// Does something with a fault at the operation; with one that kills, in a
/// process of its own (see isKilledAt()).
Attempt tryWith(Fault fault, int operation, const std::function<void()>& action);

/// The operations that `action` carries out, in their order, as "fsync PATH",
/// "rename FROM TO" and so on. Without other threads.
std::vector<std::string> operationsOf(const std::function<void()>& action);

/// Does something in a process of its own and tells whether that was killed at
/// the operation; false if there were not so many. To be called where there
/// are no other threads.
bool isKilledAt(Fault fault, int operation, const std::function<void()>& action);

} // namespace TestSupport
