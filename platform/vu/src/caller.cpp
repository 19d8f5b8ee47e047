#include <vu/caller.hpp>

#include <utility>

namespace vu
{

namespace
{
thread_local std::string caller;
}

const std::string& currentCaller() { return caller; }

CallerScope::CallerScope(std::string name) : _previous(std::exchange(caller, std::move(name))) {}

CallerScope::~CallerScope() { caller = std::move(_previous); }

} // namespace vu
