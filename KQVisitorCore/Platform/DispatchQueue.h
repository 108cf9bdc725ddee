#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/TimerQueue.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kq {

namespace detail {
struct DispatchQueueImpl;  // the dispatchqueue's state, private to DispatchQueue.cpp
}  // namespace detail

/// A serial queue of tasks, in the manner of a dispatch queue: tasks run one at a time, in the
/// order they were submitted; delayed tasks join the end of the queue when their deadline (on
/// Clock::shared()) has passed, earliest deadline first.
///
/// Two kinds exist. The main queue has no thread: the host application runs it on its main
/// thread with run() or pumps it from its own event loop with pump(). Every other queue is
/// created with create() and owns one thread. Tasks are never run inside the call that submits
/// them (except sync() on the queue's own thread).
class KQ_EXPORT DispatchQueue final : public TimerQueue {
 public:
  /// A delay, measured on Clock::shared().
  using Duration = Clock::Duration;
  /// A deadline on Clock::shared().
  using TimePoint = Clock::TimePoint;

  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// Stops the queue's thread and drops the tasks that have not run. Safe to run on the queue's
  /// own thread (the thread then ends after the task that released the queue).
  ~DispatchQueue() override;

  /// The host-driven main queue. It lives until the process ends.
  static const std::shared_ptr<DispatchQueue>& main();

  /// A new serial queue with a thread of its own, named `label` in logs and debuggers.
  static std::shared_ptr<DispatchQueue> create(std::string label);

  /// The name given at create(), as shown in logs and error messages.
  [[nodiscard]] const std::string& label() const;

  /// Submits `task` to run after the tasks already queued. Thread-safe.
  void async(Task task);

  /// Submits `task` to run once `delay` has passed on Clock::shared(). Thread-safe.
  void asyncAfter(Duration delay, Task task);

  /// Runs `task` on this queue and waits for it to finish; on the queue's own thread it runs at
  /// once. Calling it for the main queue from another thread while nobody runs the main queue
  /// waits until somebody does.
  void sync(const Task& task);

  /// True on the thread that runs this queue's tasks. For the main queue: on the thread that
  /// last ran or pumped it, also between pumps.
  [[nodiscard]] bool isCurrent() const override;

  TaskId scheduleAt(TimePoint deadline, Task task) override;
  Task cancel(TaskId id) override;

  /// Main queue only: runs tasks on the calling thread until stop() is called.
  void run();

  /// Main queue only: makes a running run() return after its current task. Thread-safe.
  void stop();

  /// Main queue only: runs the tasks that are due now, once each; tasks they submit wait for the
  /// next pump, so a task that resubmits itself cannot hold the caller. When none was due, waits
  /// up to `maxWait` (real time) for one and runs what is due then. Returns the number run.
  std::size_t pump(Duration maxWait = Duration::zero());

  /// Wakes every queue to re-read the clock; clocks call it when their time changes.
  static void wakeAll();

  /// While a Batch lives, what its thread submits with async() is held back; when it ends,
  /// each queue receives its held tasks at once, in the order they were given, and its thread
  /// is woken once for all of them. A thread that hands out many tasks in one go (the XMPP
  /// stream delivering the stanzas of one read to several delegates) then wakes a waiting
  /// queue once instead of once per task. Any other submission from the batch's thread
  /// (asyncAfter, scheduleAt, sync) first submits what is held, so that the thread's tasks keep
  /// their order on every queue. Batches nest: the outermost one submits.
  class KQ_EXPORT Batch {
   public:
    Batch();
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// Submits what the calling thread's batch holds now.
    static void flush();
  };

 private:
  using Impl = detail::DispatchQueueImpl;
  explicit DispatchQueue(std::shared_ptr<Impl> impl);

  std::shared_ptr<Impl> impl_;
};

}  // namespace kq
