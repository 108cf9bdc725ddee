#pragma once

#include <KQVisitorCore/Platform/TimerQueue.h>

#include <map>
#include <unordered_map>
#include <utility>

namespace kq {

/// The tasks of a queue that wait for a deadline, earliest first (equal deadlines in the order
/// they were added). Not thread-safe: the queue guards it with its own lock. Internal to the
/// library.
class TimedTasks {
 public:
  using Task = TimerQueue::Task;
  using TaskId = TimerQueue::TaskId;

  TaskId add(Clock::TimePoint deadline, Task task) {
    const TaskId id = nextId_++;
    tasks_.emplace(std::make_pair(deadline, id), std::move(task));
    deadlineOf_.emplace(id, deadline);
    return id;
  }

  /// The task `id`, taken out; null when it is not waiting.
  Task take(TaskId id) {
    const auto found = deadlineOf_.find(id);
    if (found == deadlineOf_.end()) {
      return nullptr;
    }
    auto node = tasks_.extract(std::make_pair(found->second, id));
    deadlineOf_.erase(found);
    return node.empty() ? nullptr : std::move(node.mapped());
  }

  /// The earliest task due at `now`, taken out; null when none is due.
  Task takeDue(Clock::TimePoint now) {
    if (tasks_.empty() || tasks_.begin()->first.first > now) {
      return nullptr;
    }
    auto node = tasks_.extract(tasks_.begin());
    deadlineOf_.erase(node.key().second);
    return std::move(node.mapped());
  }

  /// The earliest deadline; TimePoint::max() when nothing waits.
  [[nodiscard]] Clock::TimePoint nextDeadline() const {
    return tasks_.empty() ? Clock::TimePoint::max() : tasks_.begin()->first.first;
  }

  [[nodiscard]] bool isEarliest(TaskId id) const {
    return !tasks_.empty() && tasks_.begin()->first.second == id;
  }

  /// Every task, taken out (for the caller to destroy outside its lock).
  TimedTasks takeAll() { return std::exchange(*this, TimedTasks{}); }

 private:
  std::map<std::pair<Clock::TimePoint, TaskId>, Task> tasks_;
  std::unordered_map<TaskId, Clock::TimePoint> deadlineOf_;
  TaskId nextId_ = 1;
};

}  // namespace kq
