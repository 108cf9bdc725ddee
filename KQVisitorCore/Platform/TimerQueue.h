#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/Export.h>

#include <cstdint>
#include <functional>

namespace kq {

/// A serial queue that runs tasks by deadline: what a Timer needs of the queue its ticks run on.
/// DispatchQueue is one; so is the XMPP stream's event-loop queue, so that a stream's timers run
/// on the stream's own thread.
class KQ_EXPORT TimerQueue {
 public:
  /// A piece of work run on the queue.
  using Task = std::function<void()>;
  /// Names a scheduled task for cancel(); 0 names none.
  using TaskId = std::uint64_t;

  TimerQueue() = default;
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;
  virtual ~TimerQueue();

  /// Runs `task` on this queue once Clock::shared() reaches `deadline`; tasks due together run
  /// earliest deadline first. Answers an id for cancel(), or 0 when the queue has stopped (the
  /// task is then dropped). Thread-safe.
  virtual TaskId scheduleAt(Clock::TimePoint deadline, Task task) = 0;

  /// Takes back a task that has not started; answers it (so that the caller destroys it outside
  /// its own locks), or null when it has started, run or was never scheduled. Thread-safe.
  virtual Task cancel(TaskId id) = 0;

  /// True on the thread that runs this queue's tasks.
  [[nodiscard]] virtual bool isCurrent() const = 0;
};

}  // namespace kq
