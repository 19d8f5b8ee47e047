#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <vu/future.hpp>
#include <vu/threadpool.hpp>

namespace vu
{

/// A waiting line on a pool: what is pushed runs in that order, one at a time.
/// Thread-safe; what has been pushed runs even if the line's handle dies.
class Line : public std::enable_shared_from_this<Line>
{
public:
  /// `name` tells whose line it is, "events for Arm".
  static std::shared_ptr<Line> create(std::shared_ptr<ThreadPool> pool, std::string name);

  void push(ThreadPool::Task task);
  /// Runs when `ready` has completed as well; until then the line stands still
  /// and holds no thread.
  template <typename T> void push(ThreadPool::Task task, const Future<T>& ready)
  {
    push(std::move(task),
         [ready](const ThreadPool::Task& goOn)
         {
           if (ready.isFinished())
             return false;
           ready.then([goOn](const Future<T>&) { goOn(); });
           return true;
         });
  }

  /// Completes when all that stands in the line now has run.
  Future<void> passed();

  /// From so many entries on a line is too long: whoever takes them does not
  /// keep up. The log tells of it, once until the line is half as long.
  static constexpr std::size_t tooMany = 10000;
  /// How many entries stand in the lines that are too long, by their names.
  static std::map<std::string, std::size_t> tooLong();

private:
  /// Whether the line must stand still; then it is told when to go on.
  using Wait = std::function<bool(const ThreadPool::Task& goOn)>;
  struct Entry
  {
    ThreadPool::Task task;
    Wait wait; ///< may be empty
  };

  Line(std::shared_ptr<ThreadPool> pool, std::string name) : _pool(std::move(pool)), _name(std::move(name)) {}
  void reportLength();
  void push(ThreadPool::Task task, Wait wait);
  void runNext();

  const std::shared_ptr<ThreadPool> _pool;
  const std::string _name;
  std::mutex _mutex; // guards the members below
  std::deque<Entry> _entries;
  bool _running = false;
  bool _isTooLong = false;
};

} // namespace vu
