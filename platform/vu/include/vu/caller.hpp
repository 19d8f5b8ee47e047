#pragma once

#include <string>

namespace vu
{

/// The name on whose behalf the current thread works: a token's or a module's,
/// empty when nobody asked. Nested calls see it, and whatever is posted to a
/// ThreadPool takes it along.
const std::string& currentCaller();

/// Sets the current thread's caller for the life of the scope.
class CallerScope
{
public:
  explicit CallerScope(std::string name);
  ~CallerScope();
  CallerScope(const CallerScope&) = delete;
  CallerScope& operator=(const CallerScope&) = delete;

private:
  std::string _previous;
};

} // namespace vu
