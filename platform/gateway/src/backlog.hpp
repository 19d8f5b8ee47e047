#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>

namespace Tarvik
{

/// The bytes that wait to be sent to all clients together. When they pass the
/// bound, the client that most waits for is dropped, and so on until they do
/// not: many who read nothing cannot take the memory of those who do.
/// Thread-safe.
class Backlog : public std::enable_shared_from_this<Backlog>
{
public:
  explicit Backlog(std::size_t maximum) : _maximum(static_cast<std::int64_t>(maximum)) {}

  /// What waits for one client.
  class Share
  {
  public:
    Share(std::shared_ptr<Backlog> backlog, std::function<void()> drop);
    ~Share();
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    /// May drop this client or another, so that no lock is to be held which
    /// dropping one takes.
    void add(std::size_t bytes);
    void remove(std::size_t bytes);

    /// From then on it is not dropped any more.
    void end();

  private:
    friend class Backlog;
    const std::shared_ptr<Backlog> _backlog;
    std::function<void()> _drop; ///< guarded by the backlog's mutex
    std::atomic<std::int64_t> _bytes = 0;
    std::atomic<bool> _dropped = false;
  };

  /// `drop` lets go of what waits; it is called once at most, on the thread
  /// that adds and under a lock of the backlog's.
  std::shared_ptr<Share> open(std::function<void()> drop) { return std::make_shared<Share>(shared_from_this(), std::move(drop)); }

  std::size_t bytes() const { return static_cast<std::size_t>(std::max<std::int64_t>(_bytes, 0)); }
  std::size_t drops() const { return _drops; }

private:
  void relieve();

  const std::int64_t _maximum;
  std::atomic<std::int64_t> _bytes = 0;
  std::atomic<std::size_t> _drops = 0;
  std::mutex _mutex; // guards _shares; taken before the locks of what is dropped
  std::set<Share*> _shares;
};

} // namespace Tarvik
